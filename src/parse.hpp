/*
 * Numbers and arrays from text.
 *
 * Numbers are read in the "C" locale whatever the process's locale is, integers with base 0 (so "0x10" and
 * "010" are numbers), and only where the whole text is consumed without a range error; an empty or null
 * text is no number. A text that is no number leaves the result untouched.
 */
#pragma once

#include <cstddef>
#include <cstdint>

bool hs_parse_uint32(const char *text, uint32_t *value);
bool hs_parse_int32(const char *text, int32_t *value);
bool hs_parse_int64(const char *text, int64_t *value);
bool hs_parse_float(const char *text, float *value);
bool hs_parse_double(const char *text, double *value);

/** Told size of a text element in a packed array; the slot itself holds a pointer. */
inline constexpr uint32_t HS_PARSE_TEXT_SIZE = 1024;

/** How many elements hs_parse_array finds in the JSON array `text` of `length` bytes. */
uint32_t hs_parse_array_count(const char *text, size_t length);

/**
 * Packs up to `count` elements of the JSON array `text` of `length` bytes (which needs no terminator) into
 * a new buffer `*out`, freed by the caller with free(). `complex_type` gives the element:
 *
 *   "ab"  bool, 1 byte        "au"  uint32_t     "ai"  int32_t     "ax"  int64_t     "ad"  double
 *   "as"  char *, each freed by the caller too; the pointers lie side by side, but the buffer and
 *         `*out_size` have HS_PARSE_TEXT_SIZE bytes an element
 *
 * `*out_size` is the size in bytes of the elements found. An element that is no number is 0 and warned of.
 * Any other type is warned of, gives size 0 and leaves `*out` untouched.
 */
void hs_parse_array(const char *text, size_t length, uint32_t count, void **out, const char *complex_type,
		    uint32_t *out_size);
