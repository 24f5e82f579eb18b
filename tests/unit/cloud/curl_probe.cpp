#include "curl_probe.h"
#include "real_function.h"
#include "sanitizers.h"

#include <atomic>
#include <cstdarg>
#include <cstdint>
#include <cstdlib>
#include <mutex>

// libcurl's headers wrap these calls in macros of the same names.
#undef curl_easy_setopt
#undef curl_share_setopt

namespace {

struct probe_state {
  std::mutex lock;
  bool active = false;
  std::vector<std::string> options;
  bool fail_easy_init = false;
  CURLoption refused = CURLOPT_LASTENTRY;
  bool answer_transfers = false;
  CURLcode transfer_result = CURLE_OK;
  bool fail_share_init = false;
  int refused_share_option = 0;
  int share_options = 0;
  bool fail_share_cleanup = false;
  curl_lock_function lock_callback = nullptr;
  curl_unlock_function unlock_callback = nullptr;
};

probe_state& state() {
  static probe_state only;
  return only;
}

constinit std::atomic<size_t> failing_realloc{SIZE_MAX};

std::string describe(CURLoption option, long number, const void* pointer) {
  const curl_easyoption* known = curl_easy_option_by_id(option);
  std::string text = known != nullptr ? known->name : "?";
  if (known == nullptr) return text;
  if (known->type == CURLOT_LONG || known->type == CURLOT_VALUES) text += "=" + std::to_string(number);
  if (known->type == CURLOT_STRING) text += std::string{"="} + static_cast<const char*>(pointer);
  if (known->type != CURLOT_SLIST) return text;
  const char* separator = "=";
  for (auto* line = static_cast<const curl_slist*>(pointer); line != nullptr; line = line->next) {
    text += separator + std::string{line->data};
    separator = "|";
  }
  return text;
}

}  // namespace

curl_probe::curl_probe() {
  const std::scoped_lock lock{state().lock};
  state().active = true;
}

curl_probe::~curl_probe() {
  failing_realloc = SIZE_MAX;
  const std::scoped_lock lock{state().lock};
  probe_state& s = state();
  s.active = s.fail_easy_init = s.answer_transfers = s.fail_share_init = s.fail_share_cleanup = false;
  s.options.clear();
  s.refused = CURLOPT_LASTENTRY;
  s.refused_share_option = s.share_options = 0;
  s.lock_callback = nullptr;
  s.unlock_callback = nullptr;
}

std::vector<std::string> curl_probe::options() const {
  const std::scoped_lock lock{state().lock};
  return state().options;
}

void curl_probe::fail_easy_init() {
  const std::scoped_lock lock{state().lock};
  state().fail_easy_init = true;
}

void curl_probe::refuse_option(CURLoption option) {
  const std::scoped_lock lock{state().lock};
  state().refused = option;
}

void curl_probe::answer_transfers(CURLcode result) {
  const std::scoped_lock lock{state().lock};
  state().answer_transfers = true;
  state().transfer_result = result;
}

void curl_probe::fail_share_init() {
  const std::scoped_lock lock{state().lock};
  state().fail_share_init = true;
}

void curl_probe::refuse_share_option(int position) {
  const std::scoped_lock lock{state().lock};
  state().refused_share_option = position;
}

void curl_probe::fail_share_cleanup() {
  const std::scoped_lock lock{state().lock};
  state().fail_share_cleanup = true;
}

curl_lock_function curl_probe::lock_callback() const {
  const std::scoped_lock lock{state().lock};
  return state().lock_callback;
}

curl_unlock_function curl_probe::unlock_callback() const {
  const std::scoped_lock lock{state().lock};
  return state().unlock_callback;
}

void curl_probe::fail_realloc_from(size_t size) {
  failing_realloc = size;
}

#if defined(__clang__)
#pragma clang diagnostic ignored "-Wvarargs"  // the library's own declarations have an enum in front of "..."
#endif

// The calls that the program makes: the linker binds them to these, which go on to libcurl.

extern "C" {

CURL* curl_easy_init() {
  {
    const std::scoped_lock lock{state().lock};
    if (state().fail_easy_init) return nullptr;
  }
  return real_function<decltype(curl_easy_init)>("curl_easy_init")();
}

CURLcode curl_easy_setopt(CURL* handle, CURLoption option, ...) {
  va_list arguments;
  va_start(arguments, option);
  const bool is_number = option / CURLOPTTYPE_OBJECTPOINT == 0;
  const long number = is_number ? va_arg(arguments, long) : 0;
  void* pointer = is_number ? nullptr : va_arg(arguments, void*);
  va_end(arguments);
  {
    const std::scoped_lock lock{state().lock};
    if (state().active) state().options.push_back(describe(option, number, pointer));
    if (state().refused == option) return CURLE_UNKNOWN_OPTION;
  }
  auto* next = real_function<CURLcode(CURL*, CURLoption, ...)>("curl_easy_setopt");
  return is_number ? next(handle, option, number) : next(handle, option, pointer);
}

CURLcode curl_easy_perform(CURL* handle) {
  {
    const std::scoped_lock lock{state().lock};
    if (state().answer_transfers) return state().transfer_result;
  }
  return real_function<decltype(curl_easy_perform)>("curl_easy_perform")(handle);
}

CURLSH* curl_share_init() {
  {
    const std::scoped_lock lock{state().lock};
    if (state().fail_share_init) return nullptr;
  }
  return real_function<decltype(curl_share_init)>("curl_share_init")();
}

CURLSHcode curl_share_setopt(CURLSH* share, CURLSHoption option, ...) {
  va_list arguments;
  va_start(arguments, option);
  const bool is_number = option == CURLSHOPT_SHARE || option == CURLSHOPT_UNSHARE;
  const int number = is_number ? va_arg(arguments, int) : 0;
  void* pointer = is_number ? nullptr : va_arg(arguments, void*);
  va_end(arguments);
  {
    const std::scoped_lock lock{state().lock};
    probe_state& s = state();
    if (s.active && ++s.share_options == s.refused_share_option) return CURLSHE_BAD_OPTION;
    if (option == CURLSHOPT_LOCKFUNC) s.lock_callback = reinterpret_cast<curl_lock_function>(pointer);
    if (option == CURLSHOPT_UNLOCKFUNC) s.unlock_callback = reinterpret_cast<curl_unlock_function>(pointer);
    if (s.active && is_number) s.options.push_back("share " + std::to_string(number));
  }
  auto* next = real_function<CURLSHcode(CURLSH*, CURLSHoption, ...)>("curl_share_setopt");
  return is_number ? next(share, option, number) : next(share, option, pointer);
}

CURLSHcode curl_share_cleanup(CURLSH* share) {
  const CURLSHcode code = real_function<decltype(curl_share_cleanup)>("curl_share_cleanup")(share);
  const std::scoped_lock lock{state().lock};
  return state().fail_share_cleanup ? CURLSHE_IN_USE : code;
}

#if !ORVEL_THREAD_SANITIZER
void* realloc(void* block, size_t size) noexcept {
  static auto* const next = real_function<void*(void*, size_t)>("realloc");
  return size < failing_realloc ? next(block, size) : nullptr;
}
#endif
}
