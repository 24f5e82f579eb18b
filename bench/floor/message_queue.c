/*
 * Messages on their way from the thread that reads them to the one that delivers them. The least for that is one
 * block of memory, one copy of the bytes, and the mutex once at each end of the queue: floor_push(). There is no limit,
 * and nobody is woken up.
 *
 * Name and payload of the agent's messages change hands as two blocks, whoever sends them: floor_push_apart() is the
 * least for that. Its records are used in turn; there are more than the callers ever have on the queue.
 */
#include "floor/floor.h"

#include <pthread.h>
#include <stdlib.h>
#include <string.h>

struct floor_message {
  struct floor_message* next;
  char* name;
  unsigned char* payload;
  uint32_t payload_size;
};

static struct floor_message records[2048];
static size_t next_record; /* the pushing thread's */

static struct {
  pthread_mutex_t lock;
  struct floor_message* head;
  struct floor_message* tail;
} queue = {PTHREAD_MUTEX_INITIALIZER, NULL, NULL};

static void append(struct floor_message* message) {
  pthread_mutex_lock(&queue.lock);
  if (queue.tail != NULL) {
    queue.tail->next = message;
  } else {
    queue.head = message;
  }
  queue.tail = message;
  pthread_mutex_unlock(&queue.lock);
}

static void fill(struct floor_message* message, const char* name, size_t name_size, const void* payload,
                 uint32_t payload_size) {
  message->next = NULL;
  message->payload_size = payload_size;
  memcpy(message->name, name, name_size);
  message->name[name_size] = 0;
  memcpy(message->payload, payload, payload_size);
}

int floor_push(const char* name, size_t name_size, const void* payload, uint32_t payload_size) {
  struct floor_message* message = malloc(sizeof *message + name_size + 1 + payload_size);
  if (message == NULL) return -1;
  message->name = (char*)(message + 1);
  message->payload = (unsigned char*)message->name + name_size + 1;
  fill(message, name, name_size, payload, payload_size);
  append(message);
  return 0;
}

int floor_push_apart(const char* name, size_t name_size, const void* payload, uint32_t payload_size) {
  struct floor_message* message = &records[next_record++ % (sizeof records / sizeof *records)];
  char* name_block = malloc(name_size + 1);
  unsigned char* payload_block = malloc(payload_size);
  if (name_block == NULL || payload_block == NULL) return -1;
  message->name = name_block;
  message->payload = payload_block;
  fill(message, name, name_size, payload, payload_size);
  append(message);
  return 0;
}

struct floor_message* floor_pop(void) {
  pthread_mutex_lock(&queue.lock);
  struct floor_message* message = queue.head;
  if (message != NULL) queue.head = message->next;
  if (queue.head == NULL) queue.tail = NULL;
  pthread_mutex_unlock(&queue.lock);
  return message;
}

void floor_free(struct floor_message* message) {
  if (message->name == (char*)(message + 1)) {
    free(message);
  } else {
    free(message->name);
    free(message->payload);
  }
}
