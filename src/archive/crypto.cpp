// ZipCrypto and WinZip AES for the archive readers.
#include "archive/crypto.h"

#include <openssl/core_names.h>
#include <openssl/evp.h>
#include <openssl/params.h>

#include <algorithm>
#include <cstring>

namespace {

// The CRC-32 byte table PKWARE's key schedule runs on.
struct CrcTable {
    uint32_t t[256];
    constexpr CrcTable() : t() {
        for (uint32_t i = 0; i < 256; ++i) {
            uint32_t c = i;
            for (int k = 0; k < 8; ++k) c = (c & 1) ? 0xEDB88320u ^ (c >> 1) : c >> 1;
            t[i] = c;
        }
    }
};
constexpr CrcTable kCrc;

inline uint32_t CrcByte(uint32_t crc, uint8_t b) {
    return kCrc.t[(crc ^ b) & 0xFF] ^ (crc >> 8);
}

constexpr uint32_t kZipHeaderSize = 12;
constexpr uint32_t kAesVerifierSize = 2;
constexpr uint32_t kAesTrailerSize = 10;  // the first 10 bytes of the HMAC-SHA1
constexpr int kAesRounds = 1000;

}  // namespace

struct CTarnCrypto::AesState {
    EVP_CIPHER_CTX* ecb = nullptr;
    EVP_MAC* mac = nullptr;
    EVP_MAC_CTX* hmac = nullptr;
    uint8_t counter[16]{};  // little-endian, the first block is 1
    uint8_t stream[4096]{};
    uint32_t streamPos = 0;
    uint32_t streamLen = 0;

    ~AesState() {
        EVP_CIPHER_CTX_free(ecb);
        EVP_MAC_CTX_free(hmac);
        EVP_MAC_free(mac);
    }

    // Fills `stream` with the key stream of the next counter blocks. OpenSSL's CTR mode counts
    // big-endian; WinZip's counter is little-endian, so the blocks are made here and enciphered
    // in ECB mode.
    void Refill() {
        uint8_t blocks[sizeof(stream)];
        for (uint32_t off = 0; off < sizeof(blocks); off += 16) {
            for (uint8_t& b : counter)
                if (++b != 0) break;
            std::memcpy(blocks + off, counter, 16);
        }
        int len = 0;
        if (EVP_EncryptUpdate(ecb, stream, &len, blocks, int(sizeof(blocks))) != 1 ||
            len != int(sizeof(blocks))) {
            // Never seen in practice; garbage out is caught by the authentication code.
            std::memset(stream, 0, sizeof(stream));
        }
        streamLen = sizeof(stream);
        streamPos = 0;
    }
};

CTarnCrypto::CTarnCrypto() = default;
CTarnCrypto::~CTarnCrypto() = default;

uint32_t CTarnCrypto::Prepare(const TarnFileItem* item, ITarnInStream* stream, int64_t* remaining) {
    pStream_ = stream;
    aes_.reset();
    if (nMethod_ == kTarnCryptNone) return TARN_OK;
    if (sPassword_.empty()) return TARN_ERR_NEED_PASSWORD;
    switch (nMethod_) {
        case kTarnCryptZip: {
            uint8_t header[kZipHeaderSize];
            if (*remaining < int64_t(kZipHeaderSize) || !stream->Read(header, kZipHeaderSize))
                return TARN_ERR_DATA_READ;
            *remaining -= kZipHeaderSize;
            ZipInitKeys();
            for (uint8_t& b : header) b = ZipDecryptByte(b);
            return header[kZipHeaderSize - 1] == uint8_t(item->cryptCheck)
                       ? TARN_OK
                       : TARN_ERR_WRONG_PASSWORD;
        }
        case kTarnCryptAes128:
        case kTarnCryptAes256: {
            const uint32_t keySize = nMethod_ == kTarnCryptAes128 ? 16 : 32;
            const uint32_t saltSize = keySize / 2;
            uint8_t salt[16];
            uint8_t verifier[kAesVerifierSize];
            const int64_t overhead = saltSize + kAesVerifierSize + kAesTrailerSize;
            if (*remaining < overhead || !stream->Read(salt, saltSize) ||
                !stream->Read(verifier, kAesVerifierSize))
                return TARN_ERR_DATA_READ;
            *remaining -= overhead;
            return AesInit(salt, saltSize, keySize, verifier) ? TARN_OK : TARN_ERR_WRONG_PASSWORD;
        }
        case kTarnCryptEggZip:
        case kTarnCryptEggAes128:
        case kTarnCryptEggAes256:
            return PrepareEgg(item, stream, remaining);
        default:  // AES192 is named by the format but never written by anyone we read
            return TARN_ERR_ENCRYPTION;
    }
}

uint32_t CTarnCrypto::PrepareEgg(const TarnFileItem*, ITarnInStream*, int64_t*) {
    return TARN_ERR_ENCRYPTION;
}

void CTarnCrypto::Decrypt(uint8_t* buffer, uint32_t size) {
    switch (nMethod_) {
        case kTarnCryptZip:
        case kTarnCryptEggZip:
            for (uint32_t i = 0; i < size; ++i) buffer[i] = ZipDecryptByte(buffer[i]);
            break;
        case kTarnCryptAes128:
        case kTarnCryptAes256:
        case kTarnCryptEggAes128:
        case kTarnCryptEggAes256:
            if (aes_) AesDecrypt(buffer, size);
            break;
        default:
            break;
    }
}

uint32_t CTarnCrypto::Finish() {
    if (!aes_) return TARN_OK;
    uint8_t trailer[kAesTrailerSize];
    uint8_t mac[EVP_MAX_MD_SIZE];
    size_t macSize = 0;
    const bool ok = pStream_ && pStream_->Read(trailer, kAesTrailerSize) &&
                    EVP_MAC_final(aes_->hmac, mac, &macSize, sizeof(mac)) == 1 &&
                    macSize >= kAesTrailerSize && std::memcmp(mac, trailer, kAesTrailerSize) == 0;
    aes_.reset();
    return ok ? TARN_OK : TARN_ERR_DATA_READ;
}

void CTarnCrypto::Filter(uint8_t* buffer, uint32_t size) {
    if (nMethod_ != kTarnCryptNone) Decrypt(buffer, size);
}

void CTarnCrypto::ZipInitKeys() {
    keys_ = {305419896u, 591751049u, 878082192u};
    auto update = [this](uint8_t c) {
        keys_[0] = CrcByte(keys_[0], c);
        keys_[1] = (keys_[1] + (keys_[0] & 0xFF)) * 134775813u + 1;
        keys_[2] = CrcByte(keys_[2], uint8_t(keys_[1] >> 24));
    };
    for (char c : sPassword_) update(uint8_t(c));
}

uint8_t CTarnCrypto::ZipDecryptByte(uint8_t c) {
    const uint32_t t = (keys_[2] & 0xFFFF) | 2;
    const uint8_t plain = c ^ uint8_t((t * (t ^ 1)) >> 8);
    keys_[0] = CrcByte(keys_[0], plain);
    keys_[1] = (keys_[1] + (keys_[0] & 0xFF)) * 134775813u + 1;
    keys_[2] = CrcByte(keys_[2], uint8_t(keys_[1] >> 24));
    return plain;
}

bool CTarnCrypto::AesInit(const uint8_t* salt, uint32_t saltSize, uint32_t keySize,
                          const uint8_t verifier[2]) {
    // The derived bytes are the AES key, the HMAC key and the 2-byte password verifier.
    uint8_t derived[32 + 32 + kAesVerifierSize];
    const size_t pwSize = std::min(sPassword_.size(), kTarnAesMaxPassword);
    const uint32_t derivedSize = 2 * keySize + kAesVerifierSize;
    if (PKCS5_PBKDF2_HMAC_SHA1(sPassword_.data(), int(pwSize), salt, int(saltSize), kAesRounds,
                               int(derivedSize), derived) != 1)
        return false;
    if (std::memcmp(derived + 2 * keySize, verifier, kAesVerifierSize) != 0) return false;

    auto aes = std::make_unique<AesState>();
    aes->ecb = EVP_CIPHER_CTX_new();
    aes->mac = EVP_MAC_fetch(nullptr, "HMAC", nullptr);
    aes->hmac = aes->mac ? EVP_MAC_CTX_new(aes->mac) : nullptr;
    if (!aes->ecb || !aes->hmac) return false;
    const EVP_CIPHER* cipher = keySize == 16 ? EVP_aes_128_ecb() : EVP_aes_256_ecb();
    if (EVP_EncryptInit_ex(aes->ecb, cipher, nullptr, derived, nullptr) != 1) return false;
    EVP_CIPHER_CTX_set_padding(aes->ecb, 0);
    char digest[] = "SHA1";
    const OSSL_PARAM params[] = {OSSL_PARAM_construct_utf8_string(OSSL_MAC_PARAM_DIGEST, digest, 0),
                                 OSSL_PARAM_END};
    if (EVP_MAC_init(aes->hmac, derived + keySize, keySize, params) != 1) return false;
    aes_ = std::move(aes);
    return true;
}

void CTarnCrypto::AesDecrypt(uint8_t* buffer, uint32_t size) {
    // The code authenticates the ciphertext, so it sees the bytes before they are decrypted.
    EVP_MAC_update(aes_->hmac, buffer, size);
    while (size > 0) {
        if (aes_->streamPos == aes_->streamLen) aes_->Refill();
        const uint32_t n = std::min(size, aes_->streamLen - aes_->streamPos);
        const uint8_t* ks = aes_->stream + aes_->streamPos;
        for (uint32_t i = 0; i < n; ++i) buffer[i] ^= ks[i];
        aes_->streamPos += n;
        buffer += n;
        size -= n;
    }
}
