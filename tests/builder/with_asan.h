// KLT_WITH_ASAN: defined in builds with AddressSanitizer, whichever the compiler.
#pragma once

#if defined(__SANITIZE_ADDRESS__)
#define KLT_WITH_ASAN 1
#elif defined(__has_feature)
#if __has_feature(address_sanitizer)
#define KLT_WITH_ASAN 1
#endif
#endif
