// Entry decryption shared by the ZIP, ALZ and EGG readers: PKWARE's traditional stream cipher
// ("ZipCrypto") and WinZip's AES in counter mode with an HMAC-SHA1 trailer.
//
// One object serves one entry at a time: SetMethod with the entry's encryption method, Prepare
// to read what the method keeps in front of the data and check the password, Decrypt on every
// block in order, Finish to check what it keeps behind. It is also a stream filter, so that a
// reader can have the input decrypt as it reads.
#pragma once

#include <array>
#include <cstdint>
#include <memory>
#include <string>

#include "archive/tarn.h"
#include "archive/tarnstream.h"

// Encryption method numbers of TarnFileItem::encryptionMethod.
inline constexpr uint32_t kTarnCryptNone = 0;
inline constexpr uint32_t kTarnCryptZip = 1;
inline constexpr uint32_t kTarnCryptAes128 = 2;
inline constexpr uint32_t kTarnCryptAes192 = 3;  // named, never decrypted
inline constexpr uint32_t kTarnCryptAes256 = 4;
inline constexpr uint32_t kTarnCryptEggZip = 5;
inline constexpr uint32_t kTarnCryptEggAes128 = 6;
inline constexpr uint32_t kTarnCryptEggAes256 = 7;

// The longest password WinZip AES keys are derived from.
inline constexpr size_t kTarnAesMaxPassword = 128;

class CTarnCrypto : public ITarnStreamFilter {
public:
    CTarnCrypto();
    ~CTarnCrypto() override;
    CTarnCrypto(const CTarnCrypto&) = delete;
    CTarnCrypto& operator=(const CTarnCrypto&) = delete;

    void SetPassword(const std::string& password) { sPassword_ = password; }
    void SetMethod(uint32_t method) { nMethod_ = method; }
    uint32_t GetMethod() const { return nMethod_; }

    // Reads the method's header in front of the data from `stream`, takes it (and the trailer
    // behind the data) off *remaining and checks the password. TARN_OK or the error: 32 without
    // a password, 33 when it's wrong, 70 for a method this object can't decrypt, 21 when the
    // header can't be read.
    uint32_t Prepare(const TarnFileItem* item, ITarnInStream* stream, int64_t* remaining);
    // Decrypts the next `size` bytes of the entry in place.
    void Decrypt(uint8_t* buffer, uint32_t size);
    // Checks the trailer behind the data (AES: the authentication code). TARN_OK or 21.
    uint32_t Finish();

    void Filter(uint8_t* buffer, uint32_t size) override;

protected:
    // The EGG forms (methods 5 to 7) keep their own header in front of the data; the EGG reader
    // prepares them by overriding this. Here they are not supported.
    virtual uint32_t PrepareEgg(const TarnFileItem* item, ITarnInStream* stream,
                                int64_t* remaining);

    // PKWARE's stream: keys from the password, then the 12-byte header is decrypted and its
    // last byte compared with `check`.
    void ZipInitKeys();
    uint8_t ZipDecryptByte(uint8_t c);
    // WinZip AES: derives the keys from `salt` and compares the 2-byte verifier.
    bool AesInit(const uint8_t* salt, uint32_t saltSize, uint32_t keySize,
                 const uint8_t verifier[2]);

private:
    struct AesState;
    void AesDecrypt(uint8_t* buffer, uint32_t size);

    std::string sPassword_;
    uint32_t nMethod_ = kTarnCryptNone;
    ITarnInStream* pStream_ = nullptr;  // the entry's input while prepared; not owned
    std::array<uint32_t, 3> keys_{};
    std::unique_ptr<AesState> aes_;
};
