#pragma once

#include "core/owned.h"

#include <string>
#include <vector>

// The device's settings, for a program that has to tell its user why something can't be read.

/// The three files as the command line names them; "" leaves the choice to the settings library.
struct settings_files {
  std::string storage;
  std::string profile;
  std::string config;
};

/// Points the settings library at the files.
void use_settings(const settings_files& files);

/// The storage file in force. Only the bundled library's config file is understood.
[[nodiscard]] std::string storage_path(const settings_files& files);

/// What was found: "" is not set. A negative code is a failure of the library, which usiStrerror() explains.
struct setting {
  int code;
  std::string value;
};

[[nodiscard]] setting read_setting(const std::string& key);

/// Stores and commits. 0, or the library's negative code.
[[nodiscard]] int write_setting(const std::string& key, const std::string& value);

/// The keys in the file `path` (format of usi.h) that begin with `prefix`, each once, in order. None when it can't
/// be read.
[[nodiscard]] std::vector<std::string> keys_in_file(const std::string& path, const std::string& prefix);

/// The folder that a storage file is in, as far as its name tells.
[[nodiscard]] std::string folder_of_settings(const std::string& storage);

/// Keeps other orvelctl processes from changing the same storage file between a read and a write, until the result is
/// closed. Waits a few seconds for them, but no longer than until `interrupt` (a descriptor, or -1) is readable. None,
/// with errno: EWOULDBLOCK when it was in vain, EINTR when it was interrupted, or why the folder can't be opened.
[[nodiscard]] fd_owner lock_settings(const std::string& storage, int interrupt);
