#include "cloud/logic_locks.h"

#include <openssl/crypto.h>
#include <pthread.h>

namespace {

constexpr int lock_count = 1;

// Allocated by the TLS library's allocator; null before init_locks().
constinit pthread_mutex_t* locks = nullptr;

}  // namespace

void init_locks() {
  locks =
      static_cast<pthread_mutex_t*>(CRYPTO_malloc(lock_count * sizeof(pthread_mutex_t), __FILE__, __LINE__));
  if (locks != nullptr) pthread_mutex_init(locks, nullptr);
}

void clean_locks() {
  if (locks == nullptr) return;
  pthread_mutex_destroy(locks);
  CRYPTO_free(locks, __FILE__, __LINE__);
  locks = nullptr;
}

void tls_locking_callback(int mode, int lock_number, const char* /*file*/, int /*line*/) {
  if (locks == nullptr || lock_number < 0 || lock_number >= lock_count) return;
  if ((mode & 1) != 0) {
    pthread_mutex_lock(&locks[lock_number]);
  } else {
    pthread_mutex_unlock(&locks[lock_number]);
  }
}

unsigned long tls_thread_id_callback() {
  return static_cast<unsigned long>(pthread_self());
}
