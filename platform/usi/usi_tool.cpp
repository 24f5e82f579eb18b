#include "usi.h"
#include "usi_internal.h"

#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>

// usi: settings from the command line.

namespace {

enum exit_status { done = 0, not_set = 1, failed = 2 };

constexpr char usage_text[] =
    "usage: usi [-c FILE] [--profile FILE] [--conf FILE] COMMAND\n"
    "  get KEY        print the value\n"
    "  set KEY VALUE  store a value\n"
    "  unset KEY      remove the key from the storage file\n"
    "  list           print all settings as key=value lines, escaped as in the file: those\n"
    "                 of the storage file, then those that only the profile holds\n"
    "Exit status: 0 done, 1 the key is not set, 2 usage or store error.\n"
    "unset does not touch the profile: a key that only the profile holds is not set for it.\n";

struct free_memory {
  void operator()(void* memory) const { std::free(memory); }
};

exit_status usage() {
  fputs(usage_text, stderr);
  return failed;
}

exit_status store_error(int code) {
  fprintf(stderr, "usi: %s\n", usiStrerror(code));
  return failed;
}

/// Ends a command that printed: output that was lost is a failure.
exit_status printed() {
  if (fflush(stdout) == 0 && !ferror(stdout)) return done;
  perror("usi: standard output");
  return failed;
}

exit_status commit() {
  const int code = usiCommit();
  return code < 0 ? store_error(code) : done;
}

exit_status get(char** arguments) {
  char* text = nullptr;
  const int code = usiGet(arguments[0], &text, UINT_MAX);
  const std::unique_ptr<char, free_memory> value{text};
  if (code < 0) return store_error(code);
  if (!value) return not_set;
  puts(value.get());
  return printed();
}

exit_status set(char** arguments) {
  const int code = usiSet(arguments[0], arguments[1]);
  return code < 0 ? store_error(code) : commit();
}

exit_status unset(char** arguments) {
  const int code = usi_unset(arguments[0]);
  if (code > 0) return not_set;
  return code < 0 ? store_error(code) : commit();
}

void show(void*, const char* key, size_t key_size, const char* value, size_t value_size) {
  fwrite(key, 1, key_size, stdout);
  putchar('=');
  fwrite(value, 1, value_size, stdout);
  putchar('\n');
}

exit_status list(char**) {
  const int code = usi_each(show, nullptr);
  return code < 0 ? store_error(code) : printed();
}

struct file_option {
  const char* name;
  void (*choose)(const char* path);
};

constexpr file_option file_options[] = {
    {"-c", usiSetStorageFile},
    {"--profile", usiSetProfile},
    {"--conf", usiSetConfigFile},
};

struct command {
  const char* name;
  int arguments;
  exit_status (*run)(char** arguments);
};

constexpr command commands[] = {
    {"get", 1, get},
    {"set", 2, set},
    {"unset", 1, unset},
    {"list", 0, list},
};

const file_option* find_option(const char* name) {
  for (const file_option& option : file_options)
    if (strcmp(option.name, name) == 0) return &option;
  return nullptr;
}

const command* find_command(const char* name) {
  for (const command& known : commands)
    if (strcmp(known.name, name) == 0) return &known;
  return nullptr;
}

}  // namespace

int main(int argc, char** argv) {
  int at = 1;
  for (; at < argc && argv[at][0] == '-'; at += 2) {
    const file_option* option = find_option(argv[at]);
    if (!option || at + 1 == argc) return usage();
    option->choose(argv[at + 1]);
  }
  const command* chosen = at < argc ? find_command(argv[at]) : nullptr;
  if (!chosen || argc - at - 1 != chosen->arguments) return usage();
  return chosen->run(argv + at + 1);
}
