#ifndef FLOOR_H
#define FLOOR_H

#include <stddef.h>
#include <stdint.h>

/* Floors: the least that any program could do for the same result, with the same libraries and system calls. */

#ifdef __cplusplus
extern "C" {
#endif

/* log_line.c: appends a line to a log that is opened for each line. 0 or -1. */
int floor_log_line(const char* name, const char* line, size_t length);

/* commit.c: replaces a file in one step that survives a power cut, while others that do the same wait. 0 or -1. */
struct floor_commit_paths {
  const char* folder;
  const char* file;
  const char* temporary;
  const char* lock;
};
int floor_commit(const struct floor_commit_paths* paths, const char* bytes, size_t size);

/* message_queue.c: a queue of messages between threads. The bytes are copied, into one block or apart, and the taker
 * frees the message. 0 or -1; floor_pop() gives null when there is none. */
struct floor_message;
int floor_push(const char* name, size_t name_size, const void* payload, uint32_t payload_size);
int floor_push_apart(const char* name, size_t name_size, const void* payload, uint32_t payload_size);
struct floor_message* floor_pop(void);
void floor_free(struct floor_message* message);

#ifdef __cplusplus
}
#endif

#endif
