/* The least that a device does from its start to a broker that knows it: the same settings commits, HTTPS requests and
 * TLS connect as the agent's, with the same libraries and the same TLS settings, one after the other on one thread.
 *
 * No log, no reports, no control port, no signals, no other thread, no retry: a failure ends it. Of the settings it
 * reads what the requests and the connect need. Each request has a connection of its own, as the agent's have; the TLS
 * session is shared between them. A device that is not registered yet registers first. Then it stays connected and idle
 * until the broker closes.
 *
 * usage: floor_bare_agent SETTINGS CA_FILE HARDWARE_ID
 */
#include <cjson/cJSON.h>
#include <curl/curl.h>
#include <netdb.h>
#include <openssl/ssl.h>
#include <openssl/x509v3.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <unistd.h>
#include <usi.h>

static const char ciphers[] =
    "ECDHE-ECDSA-CHACHA20-POLY1305:ECDHE-RSA-CHACHA20-POLY1305:ECDHE-ECDSA-AES128-GCM-SHA256:"
    "ECDHE-RSA-AES128-GCM-SHA256:ECDHE-ECDSA-AES256-GCM-SHA384:ECDHE-RSA-AES256-GCM-SHA384:"
    "DHE-RSA-AES128-GCM-SHA256:DHE-RSA-AES256-GCM-SHA384:ECDHE-ECDSA-AES128-SHA256:"
    "ECDHE-RSA-AES128-SHA256:ECDHE-ECDSA-AES128-SHA:ECDHE-RSA-AES256-SHA384:ECDHE-RSA-AES128-SHA:"
    "ECDHE-ECDSA-AES256-SHA384:ECDHE-ECDSA-AES256-SHA:ECDHE-RSA-AES256-SHA:DHE-RSA-AES128-SHA256:"
    "DHE-RSA-AES128-SHA:DHE-RSA-AES256-SHA256:DHE-RSA-AES256-SHA:ECDHE-ECDSA-DES-CBC3-SHA:"
    "ECDHE-RSA-DES-CBC3-SHA:EDH-RSA-DES-CBC3-SHA:AES128-GCM-SHA256:AES256-GCM-SHA384:AES128-SHA256:"
    "AES256-SHA256:AES128-SHA:AES256-SHA:DES-CBC3-SHA:!DSS";

static const char* ca_file;

struct buffer {
  char* text;
  size_t length;
};

static void need(int holds, const char* what) {
  if (holds) return;
  fprintf(stderr, "%s failed\n", what);
  exit(1);
}

/* --- settings */

static void store(const char* key, const char* value) {
  need(usiSet(key, value) == 0 && usiCommit() == 0, key);
}

static char* setting(const char* key) {
  char* value = NULL;
  need(usiGet(key, &value, 128) == 0, key);
  return value;
}

/* --- requests */

static size_t append(char* bytes, size_t size, size_t count, void* user) {
  struct buffer* buffer = user;
  const size_t length = size * count;
  char* grown = realloc(buffer->text, buffer->length + length + 1);
  if (grown == NULL) return 0;
  memcpy(grown + buffer->length, bytes, length);
  buffer->text = grown;
  buffer->length += length;
  grown[buffer->length] = '\0';
  return length;
}

static size_t ignore(char* bytes, size_t size, size_t count, void* user) {
  (void)bytes;
  (void)user;
  return size * count;
}

static CURLSH* share_session(void) {
  CURLSH* share = curl_share_init();
  curl_share_setopt(share, CURLSHOPT_SHARE, CURL_LOCK_DATA_DNS);
  curl_share_setopt(share, CURLSHOPT_SHARE, CURL_LOCK_DATA_SSL_SESSION);
  return share;
}

/* A GET, or with a body a POST. Gives the parsed answer. */
static cJSON* request(CURLSH* share, const char* key, const char* path, const char* header,
                      const char* body) {
  char url[256];
  char* base = setting(key);
  snprintf(url, sizeof url, "%s%s", base, path);
  free(base);
  struct buffer reply = {NULL, 0};
  CURL* curl = curl_easy_init();
  struct curl_slist* lines = curl_slist_append(NULL, header);
  curl_easy_setopt(curl, CURLOPT_URL, url);
  curl_easy_setopt(curl, CURLOPT_NOSIGNAL, 1L);
  curl_easy_setopt(curl, CURLOPT_TIMEOUT, 60L);
  curl_easy_setopt(curl, CURLOPT_CONNECTTIMEOUT, 300L);
  curl_easy_setopt(curl, CURLOPT_SHARE, share);
  curl_easy_setopt(curl, CURLOPT_HTTPHEADER, lines);
  if (body != NULL) curl_easy_setopt(curl, CURLOPT_POSTFIELDS, body);
  curl_easy_setopt(curl, CURLOPT_HEADERFUNCTION, ignore);
  curl_easy_setopt(curl, CURLOPT_WRITEFUNCTION, append);
  curl_easy_setopt(curl, CURLOPT_WRITEDATA, &reply);
  curl_easy_setopt(curl, CURLOPT_CAINFO, ca_file);
  curl_easy_setopt(curl, CURLOPT_SSL_VERIFYPEER, 1L);
  curl_easy_setopt(curl, CURLOPT_SSL_VERIFYHOST, 2L);
  curl_easy_setopt(curl, CURLOPT_SSLVERSION, (long)CURL_SSLVERSION_TLSv1_2);
  need(curl_easy_perform(curl) == CURLE_OK, url);
  curl_slist_free_all(lines);
  curl_easy_cleanup(curl);
  cJSON* document = cJSON_Parse(reply.text);
  need(document != NULL, url);
  free(reply.text);
  return document;
}

static const char* text_of(const cJSON* document, const char* name) {
  const char* text = cJSON_GetStringValue(cJSON_GetObjectItemCaseSensitive(document, name));
  need(text != NULL, name);
  return text;
}

static void enrol(CURLSH* share, const char* hardware_id) {
  char body[128];
  snprintf(body, sizeof body, "{\"hardwareId\": \"%s\", \"model\": \"Unknown\"}", hardware_id);
  cJSON* reply = request(share, "q_register_url", "", "Content-Type: application/json", body);
  store("q_agent_id", text_of(reply, "deviceId"));
  store("q_agent_claim_code", text_of(reply, "claimCode"));
  cJSON_Delete(reply);
}

/* --- the broker */

static int connect_to(const char* host, const char* port) {
  const struct addrinfo hints = {.ai_socktype = SOCK_STREAM};
  struct addrinfo* found = NULL;
  need(getaddrinfo(host, port, &hints, &found) == 0, host);
  const struct addrinfo* chosen = found;
  while (chosen != NULL && chosen->ai_family != AF_INET)
    chosen = chosen->ai_next;
  need(chosen != NULL, "an IPv4 address");
  const int fd = socket(chosen->ai_family, chosen->ai_socktype | SOCK_CLOEXEC, chosen->ai_protocol);
  need(fd >= 0 && connect(fd, chosen->ai_addr, chosen->ai_addrlen) == 0, "connect");
  const int on = 1;
  setsockopt(fd, SOL_SOCKET, SO_KEEPALIVE, &on, sizeof on);
  freeaddrinfo(found);
  return fd;
}

static SSL* shake_hands(int fd, const char* host) {
  SSL_CTX* context = SSL_CTX_new(TLS_client_method());
  SSL_CTX_set_min_proto_version(context, TLS1_2_VERSION);
  SSL_CTX_set_max_proto_version(context, TLS1_2_VERSION);
  need(SSL_CTX_load_verify_locations(context, ca_file, NULL) == 1, ca_file);
  need(SSL_CTX_set_cipher_list(context, ciphers) == 1, "ciphers");
  SSL_CTX_set_default_verify_paths(context);
  SSL* ssl = SSL_new(context);
  SSL_set_fd(ssl, fd);
  SSL_set_verify(ssl, SSL_VERIFY_PEER, NULL);
  need(SSL_connect(ssl) == 1, "TLS");
  X509* certificate = SSL_get1_peer_certificate(ssl);
  need(X509_check_host(certificate, host, 0, X509_CHECK_FLAG_NO_WILDCARDS, NULL) == 1, host);
  X509_free(certificate);
  return ssl;
}

static void identify(SSL* ssl, const char* agent_id) {
  unsigned char packet[4 + 128];
  const size_t length = strlen(agent_id);
  packet[0] = 0;
  packet[1] = 1;
  packet[2] = (unsigned char)(length >> 8);
  packet[3] = (unsigned char)length;
  memcpy(packet + 4, agent_id, length);
  need(SSL_write(ssl, packet, (int)length + 4) > 0, "identity");
}

int main(int argc, char** argv) {
  need(argc == 4, "usage: floor_bare_agent SETTINGS CA_FILE HARDWARE_ID:");
  usiSetStorageFile(argv[1]);
  ca_file = argv[2];
  signal(SIGPIPE, SIG_IGN);
  store("q_agent_connected", "0");
  store("q_agent_pid", "0");
  store("q_version", "release-3.5.9_bq917rkvn_2725daa_usi");
  store("q_agent_build", "Components: Toolchain:mips-linux Platform:amd64/ubuntu:22.04 ");

  curl_global_init(CURL_GLOBAL_ALL);
  CURLSH* share = share_session();
  char pid[32];
  snprintf(pid, sizeof pid, "%d", (int)getpid());
  store("q_agent_pid", pid);
  store("q_agent_connected", "0");

  char* agent_id = setting("q_agent_id");
  if (agent_id == NULL) {
    enrol(share, argv[3]);
    agent_id = setting("q_agent_id");
    store("q_agent_registered", "1");
  }
  char authorization[256];
  char* claim_code = setting("q_agent_claim_code");
  snprintf(authorization, sizeof authorization, "Authorization: %s:%s", agent_id, claim_code);
  free(claim_code);
  cJSON* claim = request(share, "q_claimed_url", "/v2", authorization, NULL);
  need(cJSON_IsTrue(cJSON_GetObjectItemCaseSensitive(claim, "claimed")), "claim");
  cJSON_Delete(claim);
  store("q_agent_claimed", "1");

  cJSON* advice = request(share, "q_advisor_url", "/v2", authorization, NULL);
  const char* host = text_of(advice, "broker");
  SSL* ssl = shake_hands(connect_to(host, text_of(advice, "port")), host);
  identify(ssl, agent_id);
  cJSON_Delete(advice);
  free(agent_id);
  store("q_agent_pid", pid);
  store("q_agent_connected", "1");

  char bytes[4096];
  while (SSL_read(ssl, bytes, sizeof bytes) > 0) {
  }
  return 0;
}
