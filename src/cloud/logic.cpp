#include "cloud/logic.h"

#include "cloud/http_helper.h"
#include "cloud/json_helper.h"
#include "cloud/logic_state.h"
#include "core/daemon.h"
#include "core/log.h"
#include "core/owned.h"

#include <cstdio>

namespace {

constexpr char log_source[] = "logic";

constexpr long status_ok = 200;
constexpr long status_created = 201;

constexpr size_t url_size = 256;
constexpr size_t header_size = 256;

// --- requests

HttpBuffer make_buffer() {
  const HttpBuffer buffer = http_buffer_create();
  if (buffer.text == nullptr) allocation_failed(ALLOCATION("malloc().\n", 1));
  return buffer;
}

// What a server answered.
struct http_reply {
  http_reply() = default;
  http_reply(const http_reply&) = delete;
  http_reply& operator=(const http_reply&) = delete;
  ~http_reply() {
    http_buffer_free(&headers);
    http_buffer_free(&body);
  }

  long status = 0;
  HttpBuffer headers = make_buffer();
  HttpBuffer body = make_buffer();
};

// A document that could not be built is a request that failed.
int post_document(const char* url, AgentSettings* settings, const c_string& document, http_reply* reply) {
  if (!document) return http_post_failed;
  return http_post_json(url, settings, document.get(), &reply->status, &reply->headers, &reply->body);
}

int refused(const http_reply& reply) {
  log_error("Invalid http code '%ld' from server.\n", reply.status);
  return read_error_headers(&reply.headers);
}

// --- registration

int take_registration(AgentSettings* settings, const http_reply& reply) {
  DeviceIdentity identity = copy_identity(settings);
  const int result = parse_register_reply(reply.body.text, &identity);
  if (result == 0) {
    log_debug("Registered with: id='%s', hardwareId='%s', claimCode='%s'\n", identity.agent_id,
              identity.hardware_id, identity.claim_code);
  } else {
    log_error("Can't parse register reply: http code:'%ld'\nHeader:'%s'\nBody:'%s'\n", reply.status,
              reply.headers.text, reply.body.text);
  }
  // Also after an incomplete reply: that leaves no identity at all, the hardware id included, on purpose.
  replace_identity(settings, identity);
  return result;
}

// --- claim check

int take_claim(const http_reply& reply) {
  ClaimReply claim{};
  if (parse_claim_reply(reply.body.text, &claim) != 0) {
    log_error("Failed to parse reply.\n");
    return -1;
  }
  const int claimed = claim.claimed;
  release_claim_reply(&claim);
  if (claimed == 0) {
    log_debug("Not claimed yet.\n");
    return 0;
  }
  log_debug("Claimed.!\n");
  return 1;
}

void log_claim(AgentSettings* settings, int claimed) {
  if (claimed == 0) {
    log_info("Device is not claimed.\n");
    return;
  }
  DeviceIdentity identity = copy_identity(settings);
  log_info("Device is claimed: id='%s', hardwareId='%s', claimCode='%s'.\n", identity.agent_id,
           identity.hardware_id, identity.claim_code);
  release_identity(&identity);
}

// --- discovery

void format_discovery_url(char (&url)[url_size], const AgentSettings* settings, const DiscoveryParams* params,
                          const char* hardware_id) {
  const char* id = params->discovery_id != nullptr ? params->discovery_id : hardware_id;
  if (params->discovery_time >= 1) {
    std::snprintf(url, url_size, "%s/?i=%s&e=%d&s=%s", settings->discovery_url, id, params->discovery_time,
                  params->service_id);
  } else {
    std::snprintf(url, url_size, "%s/?i=%s&s=%s", settings->discovery_url, id, params->service_id);
  }
}

}  // namespace

int register_device(AgentSettings* settings) {
  const c_string document{build_register_request()};
  log_debug("register_url='%s'\n", settings->register_url);
  log_debug("created json registerPostData='%s'\n", document.get());
  http_reply reply;
  if (post_document(settings->register_url, settings, document, &reply) != 0) {
    log_error("Can't' make register request.\n");  // log readers match this spelling
    return -1;
  }
  if (reply.status != status_created) return refused(reply);
  return take_registration(settings, reply);
}

int check_claim(AgentSettings* settings) {
  log_debug("claimed_url='%s'\n", settings->claimed_url);
  http_reply reply;
  if (http_get(settings->claimed_url, settings, &reply.status, &reply.headers, &reply.body) != 0) {
    log_error("Can't' make claim request.\n");  // log readers match this spelling
    return -1;
  }
  if (reply.status == status_ok || reply.status == status_created) return take_claim(reply);
  refused(reply);
  return -1;
}

int wait_for_claim_status(AgentSettings* settings) {
  int claimed = check_claim(settings);
  while (claimed == -1) {
    const auto delay = static_cast<int>(settings->claim_delay);
    log_warning("Failed to get claim status. Sleeping for %d secs.\n", delay);
    sleep_for(delay);
    claimed = check_claim(settings);
  }
  log_claim(settings, claimed);
  set_claimed(claimed);
  return claimed;
}

int discover(AgentSettings* settings, const DiscoveryParams* params) {
  DeviceIdentity identity = copy_identity(settings);
  const c_string document{
      build_discovery_request(identity.agent_id, identity.hardware_id, params->discovery_data)};
  log_debug("created json discoveryPostData='%s'\n", document.get());
  char url[url_size];
  format_discovery_url(url, settings, params, identity.hardware_id);
  release_identity(&identity);
  log_debug("discovery_url='%s'\n", url);

  http_reply reply;
  const int result = post_document(url, settings, document, &reply);
  if (result != 0) {
    log_error("Can't' make discovery request.\n");  // log readers match this spelling
    return result;
  }
  log_debug("http code:'%ld'\n", reply.status);
  if (reply.status != status_ok) {
    refused(reply);
    return discover_bad_status;
  }
  log_debug("Discover OK!.\n");
  return 0;
}

int ask_advisor(AgentSettings* settings, AdvisorReply* advice) {
  log_debug("advisor_url='%s'\n", settings->advisor_url);
  http_reply reply;
  const c_string carrier_id{copy_carrier_id(settings)};
  char header[header_size];
  if (carrier_id) std::snprintf(header, sizeof header, "X-Carrier-ID: %s", carrier_id.get());
  if (http_get_with_header(settings->advisor_url, settings, carrier_id ? header : nullptr, &reply.status,
                           &reply.headers, &reply.body) != 0) {
    log_error("Can't make advisor request.\n");
    return -1;
  }
  log_debug("http code:'%ld'\n", reply.status);
  log_debug("body:'%s'\n", reply.body.text);
  if (reply.status != status_ok) {
    refused(reply);
    return -1;
  }
  if (parse_advisor_reply(reply.body.text, advice, settings) != 0) {
    log_error("Can't parse reply from advisor.\n");
    return -1;
  }
  return 0;
}
