// The other side of an agent's wires, quick enough not to be what is measured: the cloud's HTTPS exchanges, a broker
// that notes when an identity arrives, and two sinks, one that counts messages and one for state reports.
//
// usage: bench_service CERTIFICATE KEY
//
// Its first line of output is "ports CLOUD BROKER SINK REPORTS"; then comes "identity NANOSECONDS" (of CLOCK_MONOTONIC)
// for each agent. On its input it takes "send COUNT SIZE BURST": as many messages go to the newest agent's handler
// "sink", BURST at a time, and "received COUNT" tells when the sink has them. It ends with its input.

#include <algorithm>
#include <arpa/inet.h>
#include <array>
#include <cerrno>
#include <condition_variable>
#include <csignal>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <functional>
#include <memory>
#include <mutex>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <openssl/ssl.h>
#include <string>
#include <string_view>
#include <sys/socket.h>
#include <thread>
#include <unistd.h>
#include <vector>

namespace {

constexpr std::string_view send_command = "send ";

struct ssl_free {
  void operator()(SSL* ssl) const { SSL_free(ssl); }
};
using ssl_ptr = std::unique_ptr<SSL, ssl_free>;

struct listening_socket {
  int fd;
  int port;
};

[[noreturn]] void give_up(const char* what) {
  std::perror(what);
  std::_Exit(1);
}

listening_socket listen_on_loopback() {
  const int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  auto* generic = reinterpret_cast<sockaddr*>(&address);
  socklen_t size = sizeof address;
  if (fd < 0 || bind(fd, generic, size) != 0 || listen(fd, 1024) != 0 ||
      getsockname(fd, generic, &size) != 0) {
    give_up("listen");
  }
  return {fd, ntohs(address.sin_port)};
}

// Each connection is served on a thread of its own, and closed behind `serve`.
void accept_forever(int listening, const std::function<void(int)>& serve) {
  for (;;) {
    const int accepted = accept4(listening, nullptr, nullptr, SOCK_CLOEXEC);
    if (accepted < 0 && errno != ECONNABORTED && errno != EINTR) give_up("accept");
    if (accepted < 0) continue;
    std::thread{[accepted, serve] {
      const int on = 1;
      setsockopt(accepted, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
      serve(accepted);
      close(accepted);
    }}.detach();
  }
}

void print_line(const std::string& line) {
  static std::mutex lock;
  const std::lock_guard guard{lock};
  std::puts(line.c_str());
  std::fflush(stdout);
}

// --- TLS

SSL_CTX* server_context(const char* certificate, const char* key, int newest_version) {
  SSL_CTX* context = SSL_CTX_new(TLS_server_method());
  SSL_CTX_set_max_proto_version(context, newest_version);
  if (SSL_CTX_use_certificate_chain_file(context, certificate) != 1 ||
      SSL_CTX_use_PrivateKey_file(context, key, SSL_FILETYPE_PEM) != 1) {
    give_up(certificate);
  }
  return context;
}

// Null when the handshake fails.
ssl_ptr shake_hands(SSL_CTX* context, int socket) {
  ssl_ptr ssl{SSL_new(context)};
  SSL_set_fd(ssl.get(), socket);
  return SSL_accept(ssl.get()) == 1 ? std::move(ssl) : nullptr;
}

// --- the cloud

struct exchange {
  std::string_view request;  // how it begins
  std::string status;
  std::string document;
};

std::array<exchange, 3> exchanges(int broker_port) {
  const std::string port = std::to_string(broker_port);
  return {{
      {"POST /register", "201 Created", R"({"deviceId": "BENCH-1", "claimCode": "12345678"})"},
      {"GET /claimed/v2", "200 OK", R"({"_type": "Device", "deviceId": "BENCH-1", "claimed": true})"},
      {"GET /advisor/v2", "200 OK",
       R"({"_type": "ActionConnect", "broker": "localhost", "port": ")" + port + "\"}"},
  }};
}

size_t body_size(const std::string& head) {
  const size_t at = head.find("Content-Length: ");
  return at == std::string::npos ? 0 : std::strtoul(head.c_str() + at + 16, nullptr, 10);
}

// A whole request, or nothing when the client has finished.
std::string read_request(SSL* ssl) {
  std::string request;
  std::array<char, 4096> block;
  for (;;) {
    const size_t end = request.find("\r\n\r\n");
    if (end != std::string::npos && request.size() >= end + 4 + body_size(request)) return request;
    const int count = SSL_read(ssl, block.data(), block.size());
    if (count <= 0) return {};
    request.append(block.data(), static_cast<size_t>(count));
  }
}

void serve_cloud(SSL_CTX* context, int broker_port, int socket) {
  const ssl_ptr ssl = shake_hands(context, socket);
  if (!ssl) return;
  for (std::string request; !(request = read_request(ssl.get())).empty();) {
    for (const exchange& known : exchanges(broker_port)) {
      if (!request.starts_with(known.request)) continue;
      const std::string answer =
          "HTTP/1.1 " + known.status +
          "\r\nContent-Type: application/json\r\nContent-Length: " + std::to_string(known.document.size()) +
          "\r\n\r\n" + known.document;
      SSL_write(ssl.get(), answer.data(), static_cast<int>(answer.size()));
    }
  }
  SSL_shutdown(ssl.get());
}

// --- the broker

std::mutex newest_lock;
SSL* newest = nullptr;  // of the agents that are connected

bool read_exactly(SSL* ssl, unsigned char* bytes, size_t size) {
  for (size_t done = 0; done < size;) {
    const int count = SSL_read(ssl, bytes + done, static_cast<int>(size - done));
    if (count <= 0) return false;
    done += static_cast<size_t>(count);
  }
  return true;
}

// An identity is one chunk behind its type, chunk count and length.
bool read_identity(SSL* ssl) {
  std::array<unsigned char, 4> header;
  if (!read_exactly(ssl, header.data(), header.size())) return false;
  std::vector<unsigned char> identity(static_cast<size_t>(header[2] << 8 | header[3]));
  return header[0] <= 1 && read_exactly(ssl, identity.data(), identity.size());
}

long long nanoseconds() {
  timespec now{};
  clock_gettime(CLOCK_MONOTONIC, &now);
  return now.tv_sec * 1'000'000'000LL + now.tv_nsec;
}

// Until the agent closes. Nothing is read behind the identity: the connection is only written to from now on.
void serve_broker(SSL_CTX* context, int socket) {
  const ssl_ptr ssl = shake_hands(context, socket);
  if (!ssl || !read_identity(ssl.get())) return;
  const long long arrived = nanoseconds();
  {
    const std::lock_guard guard{newest_lock};
    newest = ssl.get();
  }
  print_line("identity " + std::to_string(arrived));
  std::array<char, 4096> block;
  while (recv(socket, block.data(), block.size(), 0) > 0) {
  }
  const std::lock_guard guard{newest_lock};
  if (newest == ssl.get()) newest = nullptr;
}

// --- the sinks

std::mutex count_lock;
std::condition_variable counted;
size_t count = 0;

void drain(int socket) {
  std::array<char, 65536> block;
  while (recv(socket, block.data(), block.size(), 0) > 0) {
  }
}

void count_message(int socket) {
  drain(socket);
  const std::lock_guard guard{count_lock};
  ++count;
  counted.notify_one();
}

// --- messages

void append_chunk(std::string* packet, const std::string& data) {
  packet->push_back(static_cast<char>(data.size() >> 8));
  packet->push_back(static_cast<char>(data.size() & 0xff));
  *packet += data;
}

std::string plain_message(size_t size) {
  std::string packet{"\x02\x02", 2};
  append_chunk(&packet, "sink");
  append_chunk(&packet, std::string(size, 'm'));
  return packet;
}

void send_messages(size_t total, size_t size, size_t burst) {
  const std::string message = plain_message(size);
  {
    const std::lock_guard guard{count_lock};
    count = 0;
  }
  for (size_t sent = 0; sent < total;) {
    const size_t some = std::min(burst, total - sent);
    {
      const std::lock_guard guard{newest_lock};
      if (newest == nullptr) give_up("no device to send to");
      for (size_t i = 0; i < some; ++i) {
        SSL_write(newest, message.data(), static_cast<int>(message.size()));
      }
    }
    sent += some;
    std::unique_lock guard{count_lock};
    counted.wait(guard, [sent] { return count >= sent; });
  }
  print_line("received " + std::to_string(total));
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 3) {
    std::fputs("usage: bench_service CERTIFICATE KEY\n", stderr);
    return 2;
  }
  std::signal(SIGPIPE, SIG_IGN);
  SSL_CTX* cloud_context = server_context(argv[1], argv[2], 0);
  SSL_CTX* broker_context = server_context(argv[1], argv[2], TLS1_2_VERSION);
  const listening_socket cloud = listen_on_loopback();
  const listening_socket broker = listen_on_loopback();
  const listening_socket sink = listen_on_loopback();
  const listening_socket reports = listen_on_loopback();
  const auto at_cloud = [=](int socket) { serve_cloud(cloud_context, broker.port, socket); };
  const auto at_broker = [=](int socket) { serve_broker(broker_context, socket); };
  std::thread{accept_forever, cloud.fd, at_cloud}.detach();
  std::thread{accept_forever, broker.fd, at_broker}.detach();
  std::thread{accept_forever, sink.fd, count_message}.detach();
  std::thread{accept_forever, reports.fd, drain}.detach();
  print_line("ports " + std::to_string(cloud.port) + ' ' + std::to_string(broker.port) + ' ' +
             std::to_string(sink.port) + ' ' + std::to_string(reports.port));

  std::array<char, 128> line;
  while (std::fgets(line.data(), line.size(), stdin) != nullptr) {
    if (!std::string_view{line.data()}.starts_with(send_command)) continue;
    char* rest = nullptr;
    const size_t total = std::strtoul(line.data() + send_command.size(), &rest, 10);
    const size_t size = std::strtoul(rest, &rest, 10);
    send_messages(total, size, std::max(std::strtoul(rest, nullptr, 10), 1UL));
  }
  std::_Exit(0);  // the threads still serve
}
