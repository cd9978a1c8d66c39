/*
 * Whether this is built with AddressSanitizer.
 */
#pragma once

#if defined(__SANITIZE_ADDRESS__)
#define HS_HAS_SANITIZER 1
#elif defined(__has_feature)
#if __has_feature(address_sanitizer)
#define HS_HAS_SANITIZER 1
#endif
#endif
