#include "ctl/send_test.h"

#include "core/log.h"
#include "core/options.h"
#include "ctl/exit_status.h"
#include "ctl/waiting.h"
#include "ctl/watch_endpoint.h"
#include "delivery/message_sender.h"
#include "delivery/message_sender_endpoint.h"
#include "delivery/mt_queue.h"
#include "usi.h"

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <poll.h>
#include <string_view>
#include <sys/wait.h>

namespace {

constexpr size_t longest_key = 127;  // a longer handler's name is cut, here as in the agent
constexpr size_t queued_overhead = queue_node_overhead + 12;  // charged by queue and pool, as is the name

/// Everything in the file, as long as the agent's queue might take it; "-" is standard input. False with errno when it
/// can't be read.
bool read_message(const std::string& file, std::string* message) {
  const fd_owner opened{file == "-" ? dup(STDIN_FILENO) : open(file.c_str(), O_RDONLY | O_CLOEXEC)};
  if (!opened.valid()) return false;
  char block[65536];
  for (;;) {
    const ssize_t count = read(opened.get(), block, sizeof block);
    if (count == 0 || message->size() > queue_memory_limit) return true;
    if (count < 0 && errno == EINTR) continue;
    if (count < 0) return false;
    message->append(block, static_cast<size_t>(count));
  }
}

/// Would a delivery to a watch start a stranger's program? exit_done, or exit_wrong (complained).
int check_watches(const std::string& endpoints, const std::string& storage) {
  for (int index = 0; index < count_endpoints(endpoints.c_str()); ++index) {
    const endpoint_text endpoint = endpoint_at(endpoints.c_str(), index);
    const std::string danger = endpoint.has_port ? "" : watch_danger(endpoint.address, storage);
    if (danger.empty()) continue;
    return complain(exit_wrong, std::string{endpoint.address} + " is dangerous: " + danger +
                                    "; take it out of the setting (orvelctl doctor)");
  }
  return exit_done;
}

/// Is there anything that the agent would deliver to? exit_done, or the exit status (complained).
int check_handler(const std::string& handler, const std::string& storage) {
  const setting own_name = read_setting("q_agent_handler_name");
  const setting endpoints = read_setting(("q_handler_" + handler).substr(0, longest_key));
  if (own_name.code < 0 || endpoints.code < 0) {
    return complain(exit_file,
                    "the settings can't be read (" +
                        std::string{usiStrerror(std::min(own_name.code, endpoints.code))} +
                        "): run orvelctl as the user that the agent runs as, or name them with -c");
  }
  if (!handler.empty() && own_name.value == handler) {
    return complain(exit_wrong,
                    handler + " is the agent's own name (q_agent_handler_name): its messages are control "
                              "requests, which orvelctl raw sends");
  }
  if (endpoints.value.empty()) {
    return complain(exit_wrong, "there is no handler " + handler + ": set q_handler_" + handler +
                                    " to host:port, a program or a Unix socket");
  }
  return check_watches(endpoints.value, storage);
}

/// The child's part: delivers, with its log on the pipe.
[[noreturn]] void deliver(const std::string& handler, const std::string& message, int log) {
  log_after_fork();
  dup2(log, STDERR_FILENO);
  options.log_level = level_debug;
  options.console_log = true;
  send_to_handler(handler.c_str(), message.data(), static_cast<uint32_t>(message.size()));
  _exit(exit_done);
}

struct delivery_result {
  bool in_time;
  bool failed;
};

/// Shows the complete lines of `text` and removes them.
void show_lines(std::string* text, bool verbose, delivery_result* result) {
  for (size_t end = 0; (end = text->find('\n')) != std::string::npos; text->erase(0, end + 1)) {
    const std::string line = text->substr(0, end);
    const delivery_line judged = judge_delivery_line(line);
    result->failed |= judged.failure;
    if (verbose || !judged.debug) std::fprintf(stderr, "%s\n", line.c_str());
  }
}

/// Shows the log until its end, which is the delivery's.
delivery_result follow_log(int log, bool verbose, time_limit limit) {
  delivery_result result{true, false};
  std::string text;
  char block[4096];
  for (;;) {
    if (!wait_ready(log, POLLIN, limit)) return {false, true};
    const ssize_t count = read(log, block, sizeof block);
    if (count <= 0) break;
    text.append(block, static_cast<size_t>(count));
    show_lines(&text, verbose, &result);
  }
  text += '\n';  // one of the agent's lines has no end
  if (text.size() > 1) show_lines(&text, verbose, &result);
  return result;
}

/// In a child, so that a handler that takes nothing can't hold this program up as it would the agent.
delivery_result deliver_within(const ctl_command_line& line, const std::string& message) {
  pipe_ends log = make_pipe(O_CLOEXEC);
  const pid_t child = log.valid() ? fork() : -1;
  if (child == 0) deliver(line.handler, message, log.write_end.get());
  if (child < 0) {
    complain(exit_wrong, std::string{"no process can be started: "} + std::strerror(errno));
    return {true, true};
  }
  log.write_end.reset();
  const delivery_result result = follow_log(log.read_end.get(), line.verbose, seconds_from_now(line.timeout));
  if (!result.in_time) kill(child, SIGKILL);
  int status = 0;
  waitpid(child, &status, 0);
  return {result.in_time, result.failed || status != 0};
}

}  // namespace

delivery_line judge_delivery_line(const std::string& line) {
  // "source: line: TAG: text". Errors carry the warnings' tag.
  constexpr std::string_view harmless = "Only event_sink support this.";
  const size_t before_line = line.find(": ");
  const size_t before_tag = before_line != std::string::npos ? line.find(": ", before_line + 2) : before_line;
  if (before_tag == std::string::npos) return {false, false};
  const std::string_view tagged = std::string_view{line}.substr(before_tag + 2);
  return {tagged.starts_with("  DEBUG: "),
          tagged.starts_with("WARNING: ") && tagged.find(harmless) == std::string_view::npos};
}

int run_send_test(const ctl_command_line& line) {
  const int status = check_handler(line.handler, storage_path(line.files));
  if (status != exit_done) return status;
  std::string message = line.text.value_or("");
  if (!line.text && !read_message(line.file, &message)) {
    return complain(exit_file, "the message can't be read from " +
                                   (line.file == "-" ? "standard input" : line.file) + ": " +
                                   std::strerror(errno));
  }
  if (message.size() + line.handler.size() + queued_overhead > queue_memory_limit) {
    return complain(exit_wrong,
                    "the message is too long: the agent would drop it, since its queue holds 4,000,000 "
                    "bytes in all");
  }
  const delivery_result result = deliver_within(line, message);
  if (!result.in_time) {
    return complain(exit_timeout, "the handler did not take the message within " +
                                      std::to_string(line.timeout) +
                                      " s: in the agent it would hold up all other messages for as long");
  }
  if (result.failed) {
    return complain(
        exit_wrong,
        "the message did not get to " + line.handler +
            ": the lines above are what the agent would log (orvelctl doctor looks for the cause)");
  }
  std::printf("%zu bytes delivered to %s\n", message.size(), line.handler.c_str());
  return finish_output(exit_done);
}
