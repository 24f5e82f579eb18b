#include "ctl/doctor_checks.h"

#include "core/owned.h"

#include <cstdlib>
#include <curl/urlapi.h>

namespace {

constexpr size_t longest_url = 127;

constexpr const char* url_keys[] = {"q_register_url", "q_claimed_url", "q_discovery_url", "q_advisor_url"};
constexpr const char* number_keys[] = {"q_http_request_timeout",
                                       "q_http_connect_timeout",
                                       "q_register_aggressive_delay",
                                       "q_register_aggressive_time",
                                       "q_register_delay",
                                       "q_discovery_delay",
                                       "q_claim_delay",
                                       "q_claim_check",
                                       "q_advisor_delay",
                                       "q_qbroker_delay",
                                       "q_use_discovery",
                                       "q_force_connection",
                                       "q_broker_port",
                                       "q_broker_ssl",
                                       "q_qcloud_use_proxy",
                                       "q_qcloud_proxy_port"};

using url_handle = std::unique_ptr<CURLU, releaser<curl_url_cleanup>>;
using url_text = std::unique_ptr<char, releaser<curl_free>>;

std::string part_of(CURLU* url, CURLUPart part) {
  char* found = nullptr;
  if (curl_url_get(url, part, &found, 0) != CURLUE_OK) return "";
  const url_text text{found};
  return text.get();
}

}  // namespace

finding check_url(const std::string& key, const std::string& value) {
  const std::string advice = "set " + key + " to the cloud's address, https://HOST/PATH";
  if (value.empty()) return wrong(key + " is not set: the agent will not start", advice);
  if (value.size() > longest_url) {
    return wrong(key + " has more than 127 characters: the agent cuts it", "use a shorter address");
  }
  const url_handle url{curl_url()};
  if (curl_url_set(url.get(), CURLUPART_URL, value.c_str(), 0) != CURLUE_OK) {
    return wrong(key + " is no address: " + value, advice);
  }
  if (part_of(url.get(), CURLUPART_SCHEME) != "https") {
    return wrong(key + " is not https: " + value,
                 "use https: the claim code would be sent for everybody to read");
  }
  if (value.find_first_of("?#") != std::string::npos) {
    return wrong(key + " has something behind its path: " + value,
                 "end it with the path: the agent appends the exchange's own path");
  }
  return fine(key + ": " + value);
}

finding check_number(const std::string& key, const std::string& value) {
  if (value.empty()) return fine(key + " is not set: the default counts");
  constexpr size_t longest_number = 15;  // the agent cuts a longer text
  if (value.find_first_not_of("0123456789") != std::string::npos || value.size() > longest_number) {
    return wrong(key + " is no number: " + value, "write it in decimal digits, or unset it");
  }
  const int64_t largest = key.ends_with("_port") ? UINT16_MAX : INT32_MAX;
  if (std::strtoll(value.c_str(), nullptr, 10) > largest) {
    return wrong(key + " is too large: " + value, "write at most " + std::to_string(largest));
  }
  return fine(key + ": " + value);
}

findings check_urls_and_numbers() {
  findings found;
  for (const char* key : url_keys) {
    found.push_back(check_url(key, read_setting(key).value));
  }
  for (const char* key : number_keys) {
    finding one = check_number(key, read_setting(key).value);
    if (one.wrong) found.push_back(std::move(one));
  }
  return found;
}
