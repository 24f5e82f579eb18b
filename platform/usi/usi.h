/*
 * usi - the settings library: a key/value store in one text file.
 *
 * Settings are looked up in the storage file (read and written), then in the profile (read only; the
 * device's defaults). A third file, the config file (read only), holds the library's own options:
 *
 *   storage=PATH    the storage file       (otherwise /etc/orvel/settings)
 *   profile=PATH    the profile            (otherwise /etc/orvel/profile)
 *   sync=full|none  full, the default, makes each commit survive a power cut; none is for tests
 *
 * The config file itself is /etc/orvel/usi.conf unless a call chooses another. It is read once, at the first
 * access. A file that does not exist reads as empty. A relative path counts from the working folder at the
 * time of each access.
 *
 * File format, the same for all three: UTF-8 text, one "key=value" a line.
 *   - The key ends at the first '='; blanks (spaces and tabs) around it are ignored.
 *   - The value is everything behind that '=' as it stands, with three escapes: \n, \r and \\. A backslash
 *     before anything else stands for itself.
 *   - Blank lines, lines whose first non-blank character is '#', and lines without a key or without '=' are
 *     kept and ignored.
 *   - Of a repeated key the last line counts. A commit changes that line in place, keeps all other lines, and
 *     appends new keys.
 *   - A NUL byte anywhere, a line of more than USI_MAX_LINE bytes, more than USI_MAX_FILE bytes in all, or
 *     anything but a regular file (or a link to one) is an error: reads and commits give its code, and the
 *     file is left alone.
 *
 * Threads: every call may come from any thread at any time, but none from a signal handler. After a fork in a
 * process with several threads, call nothing here before exec.
 * Descriptors: none stays open between calls, and those in use are close-on-exec.
 */
#ifndef USI_H
#define USI_H

#ifdef __cplusplus
extern "C" {
#endif

enum {
  USI_MAX_LINE = 65536,  /* bytes of one line, its line end not counted */
  USI_MAX_FILE = 4194304 /* bytes of one file */
};

/*
 * Result codes: 0 is success. A failed system call gives its negative errno value (-EACCES, -ENOSPC,
 * -ENOMEM...); what errno has no word for is below. usiStrerror() has a text for all of them.
 */
enum {
  USI_BAD_ARGUMENT = -1001,   /* a null pointer */
  USI_BAD_KEY = -1002,        /* see usiSet() */
  USI_VALUE_TOO_LONG = -1003, /* key and value do not fit one line */
  USI_NOT_TEXT = -1004,       /* a NUL byte in a file */
  USI_LINE_TOO_LONG = -1005,  /* a line of more than USI_MAX_LINE bytes in a file */
  USI_FILE_TOO_BIG = -1006,   /* a file of more than USI_MAX_FILE bytes */
  USI_NOT_A_FILE = -1007,     /* a folder, device, pipe or socket in place of a file */
  USI_LOCKED = -1008          /* another process kept the storage file locked for 5 seconds */
};

/*
 * Reads one setting: a value staged by this process, else the storage file's, else the profile's.
 *
 * Returns 0 and sets *value to a new string, which the caller frees with free(). It holds at most the first
 * `size` characters (bytes) of the value and is always terminated; a `size` of 0 gives "".
 * Returns 0 and sets *value to NULL when the key is not set. A name that could never be set is not set.
 * Returns a negative code and sets *value to NULL when the store can't be read, when memory ran out, or
 * when `name` is NULL; with a NULL `value` there is only the code.
 *
 * Sees what another process committed before the call. While a file is unchanged this costs one stat(); the
 * file is parsed again only when it changed (a commit always shows; an edit in place shows by its size or
 * times). Never waits for a lock that another process may hold.
 */
int usiGet(const char* name, char** value, unsigned size);

/*
 * Stages one value in memory, in place of an earlier one staged for this key. Both strings are copied.
 *
 * Returns 0; USI_BAD_KEY for a name that is empty, begins with '#', or holds '=', white space or a control
 * character; USI_VALUE_TOO_LONG; USI_BAD_ARGUMENT when one of the pointers is NULL; -ENOMEM. After a failure
 * an earlier staged value is still staged.
 */
int usiSet(const char* name, const char* value);

/*
 * Makes all staged values durable: merges them into the newest content of the storage file, and replaces the
 * file in one step. At any instant, also after a kill or a power cut, a reader finds the old file or the
 * new one. Values that other processes committed are kept.
 *
 * Returns 0 when all values staged before the call are in the file, and with sync=full on the medium. Nothing
 * is written when nothing is staged or when the file holds the staged values already.
 * Returns a negative code on failure. The staged values then stay staged, and a later commit tries them
 * again. If only the last step failed (the folder's fsync), readers see the new values already.
 *
 * Waits at most 5 seconds for another process's commit to finish (USI_LOCKED). A new storage file gets mode
 * 0600; an existing one keeps its mode and owner, and if it can't (the owner is somebody else and the caller
 * is not root) the commit fails. A storage path that is a symbolic link stays one: its target is replaced.
 * Beside the file, links resolved, stays an empty file with ".lock" appended to the name. A killed commit may
 * leave one with ".usi-new", which the next commit removes.
 */
int usiCommit(void);

/* The text of a result code: never NULL, never freed, without a line end. */
const char* usiStrerror(int code);

/*
 * Choose the files; meant to be called before the first access. The text is copied. A path chosen here wins
 * over the config file's. NULL or "" takes the choice back. Staged values stay staged, and go to the file
 * chosen last. A path too long for the system makes later calls give -ENAMETOOLONG.
 */
void usiSetStorageFile(const char* name);
void usiSetProfile(const char* path);
void usiSetConfigFile(const char* path);

/*
 * The paths in force, links not resolved: never NULL, never freed. The text stays valid for good and changes
 * only with the three calls above. (Asking for the profile counts as an access: the config file is read. If
 * it can't be read, it has chosen nothing.)
 */
const char* usiGetCurrentProfile(void);
const char* usiGetCurrentConfig(void);

#ifdef __cplusplus
}
#endif

#endif
