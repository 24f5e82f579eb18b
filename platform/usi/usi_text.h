#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <memory>

// The content of a settings file, in memory: parsing, look-up and merging. No system calls. The format is
// described in usi.h; this is its home.

struct usi_free {
  void operator()(void* memory) const { std::free(memory); }
};

/// A string, or bytes, from malloc.
using usi_string = std::unique_ptr<char, usi_free>;

/// One line with a key. Offsets count from the start of the text.
struct usi_entry {
  uint32_t line;  ///< first byte of the line
  uint32_t key;   ///< the key, blanks around it left out
  uint32_t key_size;
  uint32_t value;  ///< the byte behind the '='; still escaped
  uint32_t value_size;
  uint32_t hash;  ///< of the key
};

/// A parsed text. `usi_text text{};` is the empty one.
struct usi_text {
  char* bytes;  ///< owned (malloc), as in the file
  uint32_t size;
  usi_entry* entries;  ///< owned, in the order of the lines
  uint32_t count;
  uint32_t* slots;      ///< owned; hash table of entry numbers plus 1 (0 is free), the last of a repeated key
  uint32_t slot_count;  ///< a power of two, or 0 for no table
};

/// A value on its way into a text, or, without a value, a removal.
struct usi_change {
  char* key;      ///< owned (malloc)
  char* value;    ///< owned; null removes the key
  uint32_t hash;  ///< of the key
  uint64_t turn;  ///< when it was staged: later ones have higher numbers
};

/// Parses `size` bytes, which become the text's in every case (`bytes` is malloc'ed; null with size 0).
/// Returns 0; or USI_FILE_TOO_BIG, USI_NOT_TEXT, USI_LINE_TOO_LONG or -ENOMEM, and the text is empty.
int usi_text_parse(usi_text* text, char* bytes, size_t size);

/// Frees what the text owns and makes it empty; harmless twice.
void usi_text_release(usi_text* text);

/// The entry that counts for this key, or null.
const usi_entry* usi_text_find(const usi_text* text, const char* key, size_t key_size);

/// The value of an entry, unescaped, in a new string (the caller frees) of at most `limit` characters; null
/// without memory.
char* usi_text_copy_value(const usi_text* text, const usi_entry* entry, size_t limit);

/// Whether applying the changes gives a text that means something else.
bool usi_text_differs(const usi_text* text, const usi_change* changes, size_t count);

/// Applies the changes: `merged` (empty before) becomes a new text. `text` stays as it is.
/// Returns 0, or a code of usi_text_parse(), and `merged` is empty.
int usi_text_merge(const usi_text* text, const usi_change* changes, size_t count, usi_text* merged);

/// The change of this key among `count`, or null. `hash` is the key's.
const usi_change* usi_find_change(const usi_change* changes, size_t count, const char* key, size_t key_size,
                                  uint32_t hash);

/// Whether a key can be stored (see usiSet).
bool usi_key_is_valid(const char* key);

/// Bytes that "key=value" takes as a line, the line end not counted.
size_t usi_line_size(const char* key, const char* value);

uint32_t usi_hash(const char* key, size_t key_size);
