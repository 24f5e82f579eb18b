#include "usi.h"

#include "usi_file.h"
#include "usi_internal.h"
#include "usi_sync.h"

#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <type_traits>
#include <utility>

namespace {

constexpr char default_storage[] = "/etc/orvel/settings";
constexpr char default_profile[] = "/etc/orvel/profile";
constexpr char default_config[] = "/etc/orvel/usi.conf";

/// Which file is used: the one chosen by a call, else by the config file, else the default. The buffers hold
/// one character more than any path may have: a longer one, cut to that, is still refused by the kernel
/// instead of naming another file.
struct file_choice {
  char by_call[PATH_MAX + 1];
  char by_config[PATH_MAX + 1];
};

/// The state of the library; all zero at the start, so that it takes no room in the program file.
struct store_state {
  /// Makes commits and changes of the files take turns. Taken before `lock`, and held while a commit waits
  /// for other processes and for the disk.
  usi_mutex commit_turn;

  /// Guards everything below; not held while a commit waits or writes, so that reading goes on meanwhile. Content that
  /// this process did not write itself is made durable under it, once.
  usi_mutex lock;

  // Where the files are.
  file_choice storage_choice USI_GUARDED_BY(lock) = {};
  file_choice profile_choice USI_GUARDED_BY(lock) = {};
  file_choice config_choice USI_GUARDED_BY(lock) = {};
  bool options_read USI_GUARDED_BY(lock) = false;  ///< the config file has been read
  bool no_sync USI_GUARDED_BY(lock) = false;       ///< commits need not survive a power cut

  // What they hold.
  usi_file storage USI_GUARDED_BY(lock) = {};
  usi_file profile USI_GUARDED_BY(lock) = {};

  // What is staged: one change for a key, owned.
  usi_change* changes USI_GUARDED_BY(lock) = nullptr;
  size_t change_count USI_GUARDED_BY(lock) = 0;
  size_t change_room USI_GUARDED_BY(lock) = 0;
  uint64_t last_turn USI_GUARDED_BY(lock) = 0;
};

// Threads may outlive exit().
static_assert(std::is_trivially_destructible_v<store_state>);
constinit store_state state;

const char* path_in_force(const file_choice& choice, const char* by_default) {
  if (*choice.by_call) return choice.by_call;
  return *choice.by_config ? choice.by_config : by_default;
}

const char* storage_path() USI_REQUIRES(state.lock) {
  return path_in_force(state.storage_choice, default_storage);
}

const char* profile_path() USI_REQUIRES(state.lock) {
  return path_in_force(state.profile_choice, default_profile);
}

const char* config_path() USI_REQUIRES(state.lock) {
  return path_in_force(state.config_choice, default_config);
}

void choose(char (&chosen)[PATH_MAX + 1], const char* path) {
  snprintf(chosen, sizeof chosen, "%s", path ? path : "");
}

/// Copies the value of a key: 1; 0 when the file does not hold it; or a negative code.
int copy_from(const usi_file& file, const char* name, size_t limit, usi_string* value) {
  const usi_entry* entry = usi_text_find(&file.text, name, strlen(name));
  if (!entry) return 0;
  value->reset(usi_text_copy_value(&file.text, entry, limit));
  return *value ? 1 : -ENOMEM;
}

int apply_options(const usi_file& config) USI_REQUIRES(state.lock) {
  usi_string storage;
  usi_string profile;
  usi_string sync;
  int code = copy_from(config, "storage", PATH_MAX, &storage);
  if (code >= 0) code = copy_from(config, "profile", PATH_MAX, &profile);
  if (code >= 0) code = copy_from(config, "sync", PATH_MAX, &sync);
  if (code < 0) return code;
  choose(state.storage_choice.by_config, storage.get());
  choose(state.profile_choice.by_config, profile.get());
  state.no_sync = sync && strcmp(sync.get(), "none") == 0;  // anything else is the safe choice
  state.options_read = true;
  return 0;
}

/// Reads the config file, once.
int read_options() USI_REQUIRES(state.lock) {
  if (state.options_read) return 0;
  usi_file config{};
  int code = usi_file_refresh(&config, config_path());
  if (code == 0) code = apply_options(config);
  usi_file_release(&config);
  return code;
}

int refresh_storage() USI_REQUIRES(state.lock) {
  const int code = read_options();
  return code < 0 ? code : usi_file_refresh(&state.storage, storage_path());
}

int refresh_profile() USI_REQUIRES(state.lock) {
  const int code = read_options();
  return code < 0 ? code : usi_file_refresh(&state.profile, profile_path());
}

// Staged changes.

usi_change* find_staged(const char* name) USI_REQUIRES(state.lock) {
  const size_t size = strlen(name);
  const usi_change* change =
      usi_find_change(state.changes, state.change_count, name, size, usi_hash(name, size));
  return const_cast<usi_change*>(change);  // ours, and not const there
}

/// Makes room for one more change.
int reserve_change() USI_REQUIRES(state.lock) {
  if (state.change_count < state.change_room) return 0;
  const size_t room = state.change_room ? state.change_room * 2 : 8;
  auto* changes = static_cast<usi_change*>(realloc(state.changes, room * sizeof(usi_change)));
  if (!changes) return -ENOMEM;
  state.changes = changes;
  state.change_room = room;
  return 0;
}

/// Stages a value, or with null the removal, in place of what is staged for the key.
int stage(const char* name, const char* value) USI_REQUIRES(state.lock) {
  usi_string copy{value ? strdup(value) : nullptr};
  if (value && !copy) return -ENOMEM;
  if (usi_change* staged = find_staged(name)) {
    free(std::exchange(staged->value, copy.release()));
    staged->turn = ++state.last_turn;
    return 0;
  }
  usi_string key{strdup(name)};
  if (!key || reserve_change() < 0) return -ENOMEM;
  const uint32_t hash = usi_hash(name, strlen(name));
  state.changes[state.change_count++] = {key.release(), copy.release(), hash, ++state.last_turn};
  return 0;
}

/// Forgets the changes staged up to a turn: they are in the file.
void drop_changes(uint64_t up_to) USI_REQUIRES(state.lock) {
  size_t left = 0;
  for (size_t i = 0; i < state.change_count; ++i) {
    usi_change& change = state.changes[i];
    if (change.turn > up_to) {
      state.changes[left++] = change;
      continue;
    }
    free(change.key);
    free(change.value);
  }
  state.change_count = left;
}

// Commits.

/// Whether the newest storage file lacks something staged: 1, 0, or a negative code.
int must_write() USI_REQUIRES(state.lock) {
  const int code = refresh_storage();
  if (code < 0) return code;
  return usi_text_differs(&state.storage.text, state.changes, state.change_count) ? 1 : 0;
}

/// Ends a commit that finds its values in the file. Whoever wrote them may have been killed before they were
/// durable, so content that this process did not write is synced once; of unchanged files that writes
/// nothing.
int settle_unchanged() USI_REQUIRES(state.lock) {
  if (!state.no_sync && state.storage.stamp.exists && !state.storage.durable) {
    const int code = usi_sync_path(storage_path());
    if (code < 0) return code;
    state.storage.durable = true;
  }
  drop_changes(state.last_turn);
  return 0;
}

/// What a commit takes out of the state before it writes without the lock.
struct commit_plan {
  usi_text merged;
  uint64_t turn;  ///< the newest change that is merged
  bool sync;
};

/// Merges what is staged into the newest content: 1 and the plan; 0 when there is nothing left to do; or a
/// negative code.
int plan_commit(commit_plan* plan) {
  const usi_guard guard{state.lock};
  int code = must_write();
  if (code == 0) return settle_unchanged();
  if (code < 0) return code;
  plan->turn = state.last_turn;
  plan->sync = !state.no_sync;
  code = usi_text_merge(&state.storage.text, state.changes, state.change_count, &plan->merged);
  return code < 0 ? code : 1;
}

/// Writes what was planned. Reading goes on meanwhile, from the old file or the new one.
int carry_out(const usi_place* place, commit_plan* plan) {
  usi_file replaced{};
  const int code = usi_place_replace(place, &plan->merged, plan->sync, &replaced);
  if (code < 0) {
    usi_file_release(&replaced);
    return code;
  }
  const usi_guard guard{state.lock};
  usi_file_release(&state.storage);
  state.storage = replaced;
  drop_changes(plan->turn);
  return 0;
}

/// Opens the place of the storage file if it must be written: 1; 0 when there is nothing to do; or a negative
/// code. This look without the lock file spares the medium the creation of one.
int open_storage_place(usi_place* place) {
  const usi_guard guard{state.lock};
  if (state.change_count == 0) return 0;
  int code = must_write();
  if (code == 0) return settle_unchanged();
  if (code < 0) return code;
  code = usi_place_open(place, storage_path());
  return code < 0 ? code : 1;
}

// Reading.

/// As copy_from(), from whatever holds the key.
int copy_setting(const char* name, size_t limit, usi_string* value) USI_REQUIRES(state.lock) {
  const usi_change* staged = find_staged(name);
  if (staged && staged->value) {
    value->reset(strndup(staged->value, limit));
    return *value ? 1 : -ENOMEM;
  }
  if (!staged) {  // a staged removal hides what the storage file holds
    int code = refresh_storage();
    if (code == 0) code = copy_from(state.storage, name, limit, value);
    if (code != 0) return code;
  }
  const int code = refresh_profile();
  return code < 0 ? code : copy_from(state.profile, name, limit, value);
}

}  // namespace

int usiGet(const char* name, char** value, unsigned size) {
  if (!value) return USI_BAD_ARGUMENT;
  *value = nullptr;
  if (!name) return USI_BAD_ARGUMENT;
  const usi_guard guard{state.lock};
  usi_string copy;
  const int code = copy_setting(name, size, &copy);
  *value = copy.release();
  return code < 0 ? code : 0;
}

int usiSet(const char* name, const char* value) {
  if (!name || !value) return USI_BAD_ARGUMENT;
  if (!usi_key_is_valid(name)) return USI_BAD_KEY;
  if (usi_line_size(name, value) > USI_MAX_LINE) return USI_VALUE_TOO_LONG;
  const usi_guard guard{state.lock};
  return stage(name, value);
}

int usiCommit() {
  const usi_guard turn{state.commit_turn};
  usi_place place{};
  int code = open_storage_place(&place);
  if (code <= 0) return code;
  usi_place_lock lock;
  code = usi_place_take_lock(&place, &lock);
  if (code < 0) return code;
  commit_plan plan{};
  code = plan_commit(&plan);
  if (code <= 0) return code;
  code = carry_out(&place, &plan);
  usi_text_release(&plan.merged);
  return code;
}

void usiSetStorageFile(const char* name) {
  const usi_guard turn{state.commit_turn};
  const usi_guard guard{state.lock};
  choose(state.storage_choice.by_call, name);
  usi_file_release(&state.storage);
}

void usiSetProfile(const char* path) {
  const usi_guard turn{state.commit_turn};
  const usi_guard guard{state.lock};
  choose(state.profile_choice.by_call, path);
  usi_file_release(&state.profile);
}

void usiSetConfigFile(const char* path) {
  const usi_guard turn{state.commit_turn};
  const usi_guard guard{state.lock};
  choose(state.config_choice.by_call, path);
  choose(state.storage_choice.by_config, nullptr);
  choose(state.profile_choice.by_config, nullptr);
  state.options_read = false;
  state.no_sync = false;
  usi_file_release(&state.storage);
  usi_file_release(&state.profile);
}

const char* usiGetCurrentProfile() {
  const usi_guard guard{state.lock};
  (void)read_options();  // after a failure the config file has chosen nothing
  return profile_path();
}

const char* usiGetCurrentConfig() {
  const usi_guard guard{state.lock};
  return config_path();
}

int usi_unset(const char* name) {
  if (!usi_key_is_valid(name)) return USI_BAD_KEY;
  const usi_guard guard{state.lock};
  const int code = refresh_storage();
  if (code < 0) return code;
  const usi_change* staged = find_staged(name);
  const bool is_set =
      staged ? staged->value != nullptr : usi_text_find(&state.storage.text, name, strlen(name)) != nullptr;
  return is_set ? stage(name, nullptr) : 1;
}

int usi_each(void (*show)(void* context, const char* key, size_t key_size, const char* value,
                          size_t value_size),
             void* context) {
  const usi_guard guard{state.lock};
  if (const int code = refresh_storage()) return code;
  if (const int code = refresh_profile()) return code;
  const usi_text* stored = &state.storage.text;
  const usi_text* const texts[] = {stored, &state.profile.text};
  for (const usi_text* text : texts) {
    for (uint32_t i = 0; i < text->count; ++i) {
      const usi_entry& entry = text->entries[i];
      const char* key = text->bytes + entry.key;
      if (usi_text_find(text, key, entry.key_size) != &entry) continue;            // repeated later
      if (text != stored && usi_text_find(stored, key, entry.key_size)) continue;  // the storage file wins
      show(context, key, entry.key_size, text->bytes + entry.value, entry.value_size);
    }
  }
  return 0;
}

void usi_reset() {
  usiSetStorageFile(nullptr);
  usiSetProfile(nullptr);
  usiSetConfigFile(nullptr);
  const usi_guard guard{state.lock};
  drop_changes(state.last_turn);
  free(std::exchange(state.changes, nullptr));
  state.change_room = 0;
}
