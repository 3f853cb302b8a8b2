// A server on loopback that says what a test tells it to, one client after the
// other, and remembers what it heard.
#ifndef VELPROBE_TESTS_SCRIPTED_PEER_H_
#define VELPROBE_TESTS_SCRIPTED_PEER_H_

#include <gtest/gtest.h>
#include <linux/tcp.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <string>
#include <thread>

#include "net/listener.h"
#include "net/tcp.h"

namespace velprobe {

struct Script {
  // Hear this many bytes first; 0: whatever the client sends first.
  std::size_t hear = 1;
  std::string answer = {};
  // This often again, after the answer.
  std::string filler = {};
  std::size_t filler_times = 0;
  // Microseconds before each filler.
  useconds_t pause = 0;
  // Bytes a write, 0 for all at once; the writes do not gather.
  std::size_t piece = 0;
  // Leave the connection open, without another word.
  bool stay = false;
  // End with a reset instead of hearing the client out.
  bool reset = false;
};

class ScriptedPeer {
 public:
  explicit ScriptedPeer(Script script) : script_(std::move(script)) {
    EXPECT_FALSE(listen_on({127, 0, 0, 1}, 0, listener_));
    EXPECT_TRUE(socket_local_address(listener_.get(), nullptr, &port_));
    thread_ = std::thread([this] { serve(); });
  }
  ~ScriptedPeer() { stop(); }

  // Waits for the conversation that goes on; its client must have ended.
  void stop() {
    shutdown(listener_.get(), SHUT_RDWR);
    if (thread_.joinable()) thread_.join();
  }

  std::uint16_t port() const { return port_; }

  // A configuration file for an agent with a name and this one server.
  std::string config() const {
    return "name=a\nserver_list=127.0.0.1\nserver_port=" +
           std::to_string(port_) + "\n";
  }

  // What the last client sent before and after the answer, and in how many
  // segments; to be asked after stop().
  const std::string& request() const { return request_; }
  const std::string& rest() const { return rest_; }
  unsigned data_segments() const { return data_segments_; }

 private:
  void serve() {
    FileDescriptor client;
    Ipv4Address address{};
    std::uint16_t port = 0;
    while (socket_wait_readable(listener_.get(), 600) &&
           !accept_connection(listener_, client, address, port)) {
      converse(client.get());
      client = {};
    }
  }

  void converse(int client) {
    const int on = 1;
    setsockopt(client, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
    request_ = hear(client, script_.hear);
    const std::size_t piece =
        script_.piece == 0 ? script_.answer.size() : script_.piece;
    for (std::size_t at = 0; at < script_.answer.size(); at += piece) {
      const std::size_t size = std::min(piece, script_.answer.size() - at);
      if (send(client, &script_.answer[at], size, MSG_NOSIGNAL) < 0) break;
    }
    for (std::size_t i = 0; i < script_.filler_times; ++i) {
      const std::string& filler = script_.filler;
      if (script_.pause != 0) usleep(script_.pause);
      if (send(client, filler.data(), filler.size(), MSG_NOSIGNAL) < 0) break;
    }
    if (script_.reset) {
      const linger at_once = {1, 0};
      setsockopt(client, SOL_SOCKET, SO_LINGER, &at_once, sizeof at_once);
      return;
    }
    if (!script_.stay) shutdown(client, SHUT_WR);
    rest_ = hear(client, SIZE_MAX);
    tcp_info info{};
    socklen_t size = sizeof info;
    getsockopt(client, IPPROTO_TCP, TCP_INFO, &info, &size);
    data_segments_ = info.tcpi_data_segs_in;
  }

  static std::string hear(int client, std::size_t size) {
    std::string heard;
    char buffer[4096];
    ssize_t count;
    while (heard.size() < size &&
           (count = recv(client, buffer, sizeof buffer, 0)) > 0) {
      heard.append(buffer, static_cast<std::size_t>(count));
    }
    return heard;
  }

  Script script_;
  FileDescriptor listener_;
  std::uint16_t port_ = 0;
  std::thread thread_;
  std::string request_;
  std::string rest_;
  unsigned data_segments_ = 0;
};

}  // namespace velprobe

#endif  // VELPROBE_TESTS_SCRIPTED_PEER_H_
