#pragma once

#include <cstddef>

// Base64 with the standard alphabet and padding (RFC 4648, section 4).

/// A new zero-terminated text for the caller to free, without line breaks. Lack of memory ends the process.
[[nodiscard]] char* base64_encode(const void* bytes, size_t length);

/// The bytes that `text` stands for, malloc'ed for the caller to free, and `*length`. Line ends (CR, LF) are
/// ignored. Null for a null text and for anything that is not correctly padded base64.
[[nodiscard]] unsigned char* base64_decode(const char* text, size_t* length);
