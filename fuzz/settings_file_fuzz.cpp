// The settings library on files with anything in them: read, set, commit, read again. Form feeds cut the input's text into
//   the storage file, what is done (lines: "key=value" sets, "-key" removes; the bytes 1 and 2 stand for line feed
//   and carriage return), the content that another process puts there meanwhile, and the profile.

#include "usi.h"

#include "core/owned.h"
#include "fuzz_input.h"
#include "scratch_folder.h"
#include "story.h"
#include "usi_internal.h"

#include <optional>
#include <sys/stat.h>

namespace {

// --- the naive store: a file is its lines

struct naive_entry {
  std::string key;
  std::string value;  // escaped
  size_t value_at;    // in its line
};

std::vector<std::string> lines_of(const std::string& content) {
  std::vector<std::string> lines;
  for (size_t begin = 0; begin < content.size();) {
    const size_t feed = content.find('\n', begin);
    const size_t end = feed == std::string::npos ? content.size() : feed + 1;
    lines.push_back(content.substr(begin, end - begin));
    begin = end;
  }
  return lines;
}

std::string without_blanks(const std::string& text) {
  const size_t first = text.find_first_not_of(" \t");
  if (first == std::string::npos) return "";
  return text.substr(first, text.find_last_not_of(" \t") - first + 1);
}

std::optional<naive_entry> entry_of(const std::string& line) {
  const size_t equals = line.find('=');
  if (equals == std::string::npos) return {};
  const std::string key = without_blanks(line.substr(0, equals));
  if (key.empty() || key[0] == '#') return {};
  std::string value = line.substr(equals + 1);
  if (!value.empty() && value.back() == '\n') value.pop_back();
  return naive_entry{key, value, equals + 1};
}

std::string unescaped(const std::string& value) {
  std::string text;
  for (size_t i = 0; i < value.size(); ++i) {
    const char next = value[i] == '\\' && i + 1 < value.size() ? value[i + 1] : '\0';
    const bool is_escape = next == 'n' || next == 'r' || next == '\\';
    if (is_escape) ++i;
    text += !is_escape ? value[i] : next == 'n' ? '\n' : next == 'r' ? '\r' : '\\';
  }
  return text;
}

std::string escaped_value(const std::string& text) {
  std::string value;
  for (const char c : text) {
    value += c == '\n' ? "\\n" : c == '\r' ? "\\r" : c == '\\' ? "\\\\" : std::string{c};
  }
  return value;
}

// 0, or the code that reading gives.
int fault_of(const std::string& content) {
  if (content.size() > USI_MAX_FILE) return USI_FILE_TOO_BIG;
  if (content.find('\0') != std::string::npos) return USI_NOT_TEXT;
  for (const std::string& line : lines_of(content)) {
    if (line.size() - (line.back() == '\n' ? 1 : 0) > USI_MAX_LINE) return USI_LINE_TOO_LONG;
  }
  return 0;
}

// The line that counts for the key.
std::optional<size_t> find_line(const std::vector<std::string>& lines, const std::string& key) {
  std::optional<size_t> found;
  for (size_t i = 0; i < lines.size(); ++i) {
    const std::optional<naive_entry> entry = entry_of(lines[i]);
    if (entry && entry->key == key) found = i;
  }
  return found;
}

std::optional<std::string> value_in(const std::string& content, const std::string& key) {
  const std::vector<std::string> lines = lines_of(content);
  const std::optional<size_t> line = find_line(lines, key);
  if (!line) return {};
  return unescaped(entry_of(lines[*line])->value);
}

bool can_be_key(const std::string& key) {
  if (key.empty() || key[0] == '#') return false;
  for (const char c : key) {
    if (static_cast<unsigned char>(c) <= ' ' || c == 0x7f || c == '=') return false;
  }
  return true;
}

struct naive_change {
  std::string key;
  std::optional<std::string> value;  // none: removed
};

void remove_key(std::vector<std::string>* lines, const std::string& key) {
  std::erase_if(*lines, [&](const std::string& line) {
    const std::optional<naive_entry> entry = entry_of(line);
    return entry && entry->key == key;
  });
}

void set_line(std::string* line, const std::string& value) {
  const naive_entry entry = *entry_of(*line);
  if (unescaped(entry.value) != value)
    line->replace(entry.value_at, entry.value.size(), escaped_value(value));
}

std::string joined(const std::vector<std::string>& lines) {
  std::string content;
  for (const std::string& line : lines) {
    content += line;
  }
  return content;
}

std::string merged(const std::string& content, const std::vector<naive_change>& changes) {
  std::vector<std::string> lines = lines_of(content);
  std::vector<std::string> added;
  for (const naive_change& change : changes) {
    const std::optional<size_t> line = find_line(lines, change.key);
    if (!change.value) {
      remove_key(&lines, change.key);
    } else if (line) {
      set_line(&lines[*line], *change.value);
    } else {
      added.push_back(change.key + "=" + escaped_value(*change.value) + "\n");
    }
  }
  if (!added.empty() && !lines.empty() && lines.back().back() != '\n') lines.back() += '\n';
  return joined(lines) + joined(added);
}

struct naive_store {
  std::string storage;
  std::string profile;
  std::vector<naive_change> changes;

  naive_change* staged(const std::string& key) {
    for (naive_change& change : changes) {
      if (change.key == key) return &change;
    }
    return nullptr;
  }

  void stage(const std::string& key, const std::optional<std::string>& value) {
    if (naive_change* change = staged(key)) {
      change->value = value;
    } else {
      changes.push_back({key, value});
    }
  }

  int set(const std::string& key, const std::string& value) {
    if (!can_be_key(key)) return USI_BAD_KEY;
    if (key.size() + 1 + escaped_value(value).size() > USI_MAX_LINE) return USI_VALUE_TOO_LONG;
    stage(key, value);
    return 0;
  }

  int unset(const std::string& key) {
    if (!can_be_key(key)) return USI_BAD_KEY;
    if (const int fault = fault_of(storage)) return fault;
    const naive_change* change = staged(key);
    const bool is_set = change != nullptr ? change->value.has_value() : value_in(storage, key).has_value();
    if (!is_set) return 1;
    stage(key, {});
    return 0;
  }

  // "0 'value'", "0", or a code.
  std::string get(const std::string& key, size_t limit) {
    const naive_change* change = staged(key);
    std::optional<std::string> value;
    if (change != nullptr) {
      value = change->value;
    } else {
      if (const int fault = fault_of(storage)) return std::to_string(fault);
      value = value_in(storage, key);
    }
    if (!value) {
      if (const int fault = fault_of(profile)) return std::to_string(fault);
      value = value_in(profile, key);
    }
    return value ? "0 '" + value->substr(0, limit) + "'" : "0";
  }

  int commit() {
    if (changes.empty()) return 0;
    if (const int fault = fault_of(storage)) return fault;
    const std::string next = merged(storage, changes);
    if (const int fault = fault_of(next)) return fault;
    storage = next;
    changes.clear();
    return 0;
  }
};

// --- the library

const std::string& storage_path() {
  static const std::string path = scratch_folder() + "/settings";
  return path;
}

const std::string& profile_path() {
  static const std::string path = scratch_folder() + "/profile";
  return path;
}

// As in a process that just began.
void start_library() {
  static const std::string conf = [] {
    const std::string path = scratch_folder() + "/conf";
    write_file(path, "sync=none\n");
    return path;
  }();
  usi_reset();
  usiSetConfigFile(conf.c_str());
  usiSetStorageFile(storage_path().c_str());
  usiSetProfile(profile_path().c_str());
}

// As a commit does it: a new file in the place of the old one.
void replace_file(const std::string& path, const std::string& content) {
  write_file(path + ".next", content);
  std::filesystem::rename(path + ".next", path);
}

std::string get(const std::string& key, unsigned limit) {
  char* value = nullptr;
  const int code = usiGet(key.c_str(), &value, limit);
  const c_string owned{value};
  CHECK(code == 0 || value == nullptr);
  return std::to_string(code) + (value != nullptr ? " '" + std::string{value} + "'" : "");
}

void check_values(naive_store* store, const std::vector<std::string>& keys, unsigned limit) {
  for (const std::string& key : keys) {
    check_same(key + ": " + get(key, limit), key + ": " + store->get(key, limit));
  }
}

ino_t inode_of(const std::string& path) {
  struct stat status {};
  return stat(path.c_str(), &status) == 0 ? status.st_ino : 0;
}

void check_commit(naive_store* store) {
  const std::string before = store->storage;
  const ino_t inode = inode_of(storage_path());
  const int expected = store->commit();
  CHECK(usiCommit() == expected);
  check_same(read_file(storage_path()), store->storage);
  // What changes nothing writes nothing.
  CHECK(store->storage != before || inode_of(storage_path()) == inode);
}

// --- the input

constexpr size_t most_actions = 20;
constexpr size_t most_keys = 20;  // of those in the files

struct settings_plan {
  std::string storage;
  std::vector<std::string> actions;
  std::string other_storage;
  std::string profile;
};

std::string unmasked(std::string text) {
  for (char& c : text) {
    if (c == '\x01') c = '\n';
    if (c == '\x02') c = '\r';
  }
  return text.c_str();  // a zero byte ends it
}

settings_plan read_plan(const std::string& text) {
  std::vector<std::string> parts{""};
  for (const char c : text) {
    if (c == '\f' && parts.size() < 4) {
      parts.emplace_back();
    } else {
      parts.back() += c;
    }
  }
  parts.resize(4);
  settings_plan plan{parts[0], {}, parts[2], parts[3]};
  for (std::string& line : lines_of(parts[1])) {
    if (plan.actions.size() == most_actions) break;
    if (line.back() == '\n') line.pop_back();
    plan.actions.push_back(unmasked(line));
  }
  return plan;
}

std::vector<std::string> keys_of(const settings_plan& plan) {
  std::vector<std::string> keys{"absent", ""};
  for (const std::string* content : {&plan.storage, &plan.other_storage, &plan.profile}) {
    for (const std::string& line : lines_of(*content)) {
      const std::optional<naive_entry> entry = entry_of(line);
      const bool can_be_asked_for = entry && entry->key.find('\0') == std::string::npos;
      if (can_be_asked_for && keys.size() < most_keys) keys.push_back(entry->key);
    }
  }
  for (const std::string& action : plan.actions) {
    keys.push_back(action.substr(0, action.find('=')));
  }
  return keys;
}

void carry_out(const std::vector<std::string>& actions, naive_store* store) {
  for (const std::string& action : actions) {
    const size_t equals = action.find('=');
    if (equals != std::string::npos) {
      const std::string key = action.substr(0, equals);
      const std::string value = action.substr(equals + 1);
      CHECK(usiSet(key.c_str(), value.c_str()) == store->set(key, value));
    } else if (!action.empty() && action[0] == '-') {
      CHECK(usi_unset(action.c_str() + 1) == store->unset(action.substr(1)));
    }
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  constexpr size_t largest = 200000;
  begin_run();
  fuzz_input input{data, size};
  const unsigned limit = input.next() == 0 ? 70000 : input.next();
  const bool replaced_meanwhile = input.next() % 2 == 1;
  const settings_plan plan = read_plan(expanded(input.text(), largest));
  const std::vector<std::string> keys = keys_of(plan);

  naive_store store{plan.storage, plan.profile, {}};
  write_file(storage_path(), plan.storage);
  write_file(profile_path(), plan.profile);
  start_library();
  check_values(&store, keys, limit);
  carry_out(plan.actions, &store);
  check_values(&store, keys, limit);
  if (replaced_meanwhile) {
    replace_file(storage_path(), plan.other_storage);
    store.storage = plan.other_storage;
  }
  check_commit(&store);
  check_values(&store, keys, limit);

  start_library();
  store.changes.clear();
  check_values(&store, keys, limit);
  carry_out(plan.actions, &store);
  check_commit(&store);
  return 0;
}
