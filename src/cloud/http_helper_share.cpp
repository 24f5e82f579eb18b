#include "cloud/http_helper_share.h"

#include "core/log.h"

#include <atomic>
#include <cstdio>
#include <pthread.h>

namespace {

constexpr char log_source[] = "http_helper";

/// libcurl takes and gives back the mutexes through the callbacks below, in an order of its own: so they stand
/// outside the order of our locks.
struct share_state {
  std::atomic<CURLSH*> share{nullptr};
  pthread_mutex_t share_lock = PTHREAD_MUTEX_INITIALIZER;
  pthread_mutex_t cookie_lock = PTHREAD_MUTEX_INITIALIZER;  ///< and every kind of data that is not named here
  pthread_mutex_t dns_lock = PTHREAD_MUTEX_INITIALIZER;
  pthread_mutex_t tls_session_lock = PTHREAD_MUTEX_INITIALIZER;
};
constinit share_state state;

pthread_mutex_t* mutex_of(curl_lock_data data) {
  switch (data) {
  case CURL_LOCK_DATA_SHARE:
    return &state.share_lock;
  case CURL_LOCK_DATA_DNS:
    return &state.dns_lock;
  case CURL_LOCK_DATA_SSL_SESSION:
    return &state.tls_session_lock;
  default:
    return &state.cookie_lock;
  }
}

void lock_shared(CURL* /*handle*/, curl_lock_data data, curl_lock_access /*access*/, void* /*user*/) {
  if (state.share != nullptr) pthread_mutex_lock(mutex_of(data));
}

void unlock_shared(CURL* /*handle*/, curl_lock_data data, void* /*user*/) {
  if (state.share != nullptr) pthread_mutex_unlock(mutex_of(data));
}

}  // namespace

CURLSH* shared_curl() {
  return state.share;
}

int init_shared_curl() {
  log_debug("curl_share_init...\n");
  CURLSH* share = curl_share_init();
  state.share = share;
  if (share == nullptr) {
    log_error("%s: error initializing the share structure\n", "init_shared_curl");
    return -1;
  }

  log_debug("curl_share_setopt...\n");
  CURLSHcode code = curl_share_setopt(share, CURLSHOPT_LOCKFUNC, lock_shared);
  if (code != CURLSHE_OK) {
    log_error("%s: error setting the curl share lock function %d(%s)\n", "init_shared_curl",
              static_cast<int>(code), curl_share_strerror(code));
    return -1;
  }
  log_debug("curl_share_setopt...\n");
  code = curl_share_setopt(share, CURLSHOPT_UNLOCKFUNC, unlock_shared);
  if (code != CURLSHE_OK) {
    log_error("%s: error setting the curl share unlock function %d(%s)\n", "init_shared_curl",
              static_cast<int>(code), curl_share_strerror(code));
    return -1;
  }
  log_debug("curl_share_setopt...\n");
  code = curl_share_setopt(share, CURLSHOPT_SHARE, CURL_LOCK_DATA_DNS);
  if (code != CURLSHE_OK) {
    log_error("%s: error enabling curl dns sharing %d(%s)\n", "init_shared_curl", static_cast<int>(code),
              curl_share_strerror(code));
    return -1;
  }
  log_debug("curl_share_setopt...\n");
  code = curl_share_setopt(share, CURLSHOPT_SHARE, CURL_LOCK_DATA_SSL_SESSION);
  if (code != CURLSHE_OK) {
    // Intended: this one goes to standard output instead of the log.
    std::printf("%s: error enabling curl ssl session sharing %d(%s)\n", "init_shared_curl",
                static_cast<int>(code), curl_share_strerror(code));
    return -1;
  }
  log_debug("init_shared_curl END\n");
  return 0;
}

void clean_shared_curl() {
  CURLSH* share = state.share.exchange(nullptr);
  if (share != nullptr && curl_share_cleanup(share) != CURLSHE_OK) {
    log_error("%s: error cleaning up the share structure\n", "clean_shared_curl");
  }
  curl_global_cleanup();
}
