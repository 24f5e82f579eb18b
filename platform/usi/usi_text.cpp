#include "usi_text.h"

#include "usi.h"

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <utility>

namespace {

bool is_blank(char c) {
  return c == ' ' || c == '\t';
}

/// The escape that writes `c` in a file ('n' for a line feed), or 0 when it stands for itself.
char escape_of(char c) {
  switch (c) {
  case '\n':
    return 'n';
  case '\r':
    return 'r';
  case '\\':
    return '\\';
  default:
    return 0;
  }
}

/// Takes one character of a value off the front of [*at, end), which is not empty.
char take_character(const char** at, const char* end) {
  const char c = *(*at)++;
  if (c != '\\' || *at == end) return c;
  switch (**at) {
  case 'n':
    ++*at;
    return '\n';
  case 'r':
    ++*at;
    return '\r';
  case '\\':
    ++*at;
    return '\\';
  default:
    return c;  // a backslash before anything else stands for itself
  }
}

size_t escaped_size(const char* value) {
  size_t size = 0;
  for (; *value; ++value)
    size += escape_of(*value) ? 2 : 1;
  return size;
}

char* append(char* to, const char* from, size_t size) {
  if (size > 0) memcpy(to, from, size);
  return to + size;
}

char* append_escaped(char* to, const char* value) {
  for (; *value; ++value) {
    const char escape = escape_of(*value);
    if (escape) *to++ = '\\';
    *to++ = escape ? escape : *value;
  }
  return to;
}

/// Finds the key and the value of a line; false when it has none.
bool parse_line(const char* bytes, uint32_t line, uint32_t line_end, usi_entry* entry) {
  uint32_t key = line;
  while (key < line_end && is_blank(bytes[key]))
    ++key;
  if (key == line_end || bytes[key] == '#') return false;
  const auto* equals = static_cast<const char*>(memchr(bytes + key, '=', line_end - key));
  if (!equals) return false;
  const auto value = static_cast<uint32_t>(equals - bytes) + 1;
  uint32_t key_end = value - 1;
  while (key_end > key && is_blank(bytes[key_end - 1]))
    --key_end;
  if (key_end == key) return false;
  *entry = {line, key, key_end - key, value, line_end - value, usi_hash(bytes + key, key_end - key)};
  return true;
}

int add_entry(usi_text* text, uint32_t* capacity, const usi_entry& entry) {
  if (text->count == *capacity) {
    const uint32_t larger = *capacity ? *capacity * 2 : 64;
    auto* entries = static_cast<usi_entry*>(realloc(text->entries, larger * sizeof(usi_entry)));
    if (!entries) return -ENOMEM;
    text->entries = entries;
    *capacity = larger;
  }
  text->entries[text->count++] = entry;
  return 0;
}

int parse_lines(usi_text* text) {
  uint32_t capacity = 0;
  uint32_t line = 0;
  while (line < text->size) {
    const auto* feed = static_cast<const char*>(memchr(text->bytes + line, '\n', text->size - line));
    const uint32_t line_end = feed ? static_cast<uint32_t>(feed - text->bytes) : text->size;
    if (line_end - line > USI_MAX_LINE) return USI_LINE_TOO_LONG;
    usi_entry entry{};
    if (parse_line(text->bytes, line, line_end, &entry)) {
      if (const int code = add_entry(text, &capacity, entry)) return code;
    }
    line = line_end + 1;
  }
  return 0;
}

/// The slot that holds the key, or the free one where it belongs. There is always a free one.
uint32_t* find_slot(const usi_text* text, const char* key, size_t key_size, uint32_t hash) {
  const uint32_t mask = text->slot_count - 1;
  for (uint32_t at = hash & mask;; at = (at + 1) & mask) {
    uint32_t* slot = &text->slots[at];
    if (*slot == 0) return slot;
    const usi_entry& entry = text->entries[*slot - 1];
    if (entry.hash == hash && entry.key_size == key_size &&
        memcmp(text->bytes + entry.key, key, key_size) == 0)
      return slot;
  }
}

int build_table(usi_text* text) {
  if (text->count == 0) return 0;
  uint32_t slot_count = 16;
  while (slot_count < text->count * 2)
    slot_count *= 2;
  text->slots = static_cast<uint32_t*>(calloc(slot_count, sizeof(uint32_t)));
  if (!text->slots) return -ENOMEM;
  text->slot_count = slot_count;
  for (uint32_t i = 0; i < text->count; ++i) {
    const usi_entry& entry = text->entries[i];
    *find_slot(text, text->bytes + entry.key, entry.key_size, entry.hash) =
        i + 1;  // a later one replaces an earlier one
  }
  return 0;
}

int parse(usi_text* text, size_t size) {
  if (size > USI_MAX_FILE) return USI_FILE_TOO_BIG;
  text->size = static_cast<uint32_t>(size);
  if (size > 0 && memchr(text->bytes, '\0', size)) return USI_NOT_TEXT;
  const int code = parse_lines(text);
  return code < 0 ? code : build_table(text);
}

bool value_equals(const usi_text* text, const usi_entry* entry, const char* value) {
  const char* at = text->bytes + entry->value;
  const char* end = at + entry->value_size;
  while (at < end) {
    const char c = take_character(&at, end);
    if (c != *value++) return false;
  }
  return *value == 0;
}

const usi_entry* find_changed(const usi_text* text, const usi_change& change) {
  return usi_text_find(text, change.key, strlen(change.key));
}

/// Room that the merged text can't exceed.
size_t merged_room(const usi_text* text, const usi_change* changes, size_t count) {
  size_t room = text->size + size_t{1};
  for (size_t i = 0; i < count; ++i)
    if (changes[i].value) room += usi_line_size(changes[i].key, changes[i].value) + 1;
  return room;
}

/// Copies the existing lines, with values replaced in place and lines removed. Returns the end of what it
/// wrote.
char* merge_lines(const usi_text* text, const usi_change* changes, size_t count, char* to) {
  uint32_t copied = 0;  // everything before this offset has been dealt with
  for (uint32_t i = 0; i < text->count; ++i) {
    const usi_entry& entry = text->entries[i];
    const char* key = text->bytes + entry.key;
    const usi_change* change = usi_find_change(changes, count, key, entry.key_size, entry.hash);
    if (!change) continue;
    const uint32_t line_end = entry.value + entry.value_size;
    if (!change->value) {  // every line with this key goes, or an earlier one would count from now on
      to = append(to, text->bytes + copied, entry.line - copied);
      copied = std::min(line_end + 1, text->size);
    } else if (usi_text_find(text, key, entry.key_size) == &entry &&
               !value_equals(text, &entry, change->value)) {
      to = append(to, text->bytes + copied, entry.value - copied);
      to = append_escaped(to, change->value);
      copied = line_end;
    }
  }
  return append(to, text->bytes + copied, text->size - copied);
}

}  // namespace

uint32_t usi_hash(const char* key, size_t key_size) {
  constexpr uint64_t golden_ratio = 0x9e3779b97f4a7c15U;
  uint64_t hash = key_size;
  while (key_size > 0) {  // eight bytes at a time, the last ones filled up with zeros
    uint64_t word = 0;
    const size_t size = std::min(key_size, sizeof word);
    memcpy(&word, key, size);
    hash = (hash ^ word) * golden_ratio;
    hash ^= hash >> 32;
    key += size;
    key_size -= size;
  }
  // A product carries bits upwards only: a second one takes those of the last bytes, too, to where all have met.
  return static_cast<uint32_t>((hash * golden_ratio) >> 32);
}

int usi_text_parse(usi_text* text, char* bytes, size_t size) {
  *text = {};
  text->bytes = bytes;
  const int code = parse(text, size);
  if (code < 0) usi_text_release(text);
  return code;
}

void usi_text_release(usi_text* text) {
  std::free(text->bytes);
  std::free(text->entries);
  std::free(text->slots);
  *text = {};
}

const usi_entry* usi_text_find(const usi_text* text, const char* key, size_t key_size) {
  if (text->slot_count == 0) return nullptr;
  const uint32_t slot = *find_slot(text, key, key_size, usi_hash(key, key_size));
  return slot ? &text->entries[slot - 1] : nullptr;
}

char* usi_text_copy_value(const usi_text* text, const usi_entry* entry, size_t limit) {
  auto* copy = static_cast<char*>(malloc(std::min<size_t>(limit, entry->value_size) + 1));
  if (!copy) return nullptr;
  const char* at = text->bytes + entry->value;
  const char* end = at + entry->value_size;
  size_t length = 0;
  while (at < end && length < limit)
    copy[length++] = take_character(&at, end);
  copy[length] = 0;
  return copy;
}

bool usi_text_differs(const usi_text* text, const usi_change* changes, size_t count) {
  return std::any_of(changes, changes + count, [text](const usi_change& change) {
    const usi_entry* entry = find_changed(text, change);
    if (!entry || !change.value) return (entry != nullptr) != (change.value != nullptr);
    return !value_equals(text, entry, change.value);
  });
}

int usi_text_merge(const usi_text* text, const usi_change* changes, size_t count, usi_text* merged) {
  const size_t room = merged_room(text, changes, count);
  usi_string bytes{static_cast<char*>(malloc(room))};
  if (!bytes) return -ENOMEM;
  char* const start = bytes.get();
  char* to = merge_lines(text, changes, count, start);
  for (size_t i = 0; i < count; ++i) {
    if (!changes[i].value || find_changed(text, changes[i])) continue;
    if (to > start && to[-1] != '\n') *to++ = '\n';  // the last line had no line end
    to = append(to, changes[i].key, strlen(changes[i].key));
    *to++ = '=';
    to = append_escaped(to, changes[i].value);
    *to++ = '\n';
  }
  return usi_text_parse(merged, bytes.release(), static_cast<size_t>(to - start));
}

const usi_change* usi_find_change(const usi_change* changes, size_t count, const char* key, size_t key_size,
                                  uint32_t hash) {
  for (size_t i = 0; i < count; ++i) {
    const usi_change& change = changes[i];
    if (change.hash == hash && strncmp(change.key, key, key_size) == 0 && change.key[key_size] == 0)
      return &change;
  }
  return nullptr;
}

bool usi_key_is_valid(const char* key) {
  if (*key == 0 || *key == '#') return false;
  for (; *key; ++key) {
    const auto c = static_cast<unsigned char>(*key);
    if (c <= ' ' || c == 0x7f || c == '=') return false;
  }
  return true;
}

size_t usi_line_size(const char* key, const char* value) {
  return strlen(key) + 1 + escaped_size(value);
}
