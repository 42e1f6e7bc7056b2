// Stand-ins for the stream factories, for test programs that never touch a real file. Weak, so
// that the library's own definitions win wherever they are linked in.
#include "archive/tarnstream.h"

__attribute__((weak)) TarnPtr<ITarnInStream> MakeInStream(const std::string&) {
    return {};
}
__attribute__((weak)) ITarnOutStream* MakeOutStream(const std::string&, void*, bool,
                                                    uint32_t* platformError) {
    *platformError = kTarnPlatformErrnoBase;
    return nullptr;
}
__attribute__((weak)) ITarnOutStream* MakeSimpleOutStreamAdapter(ITarnSimpleOutStream*) {
    return nullptr;
}
