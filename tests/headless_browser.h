// tests/headless_browser.h: for tests: a page as a browser without a window shows it.
//
// Chromium is driven over a pair of pipes by its DevTools protocol: messages of JSON, each with a zero byte behind it.
// What the page logs and asks for is kept from its first byte on. Threads: one object from one thread.
#pragma once

#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "platform/clock.h"
#include "platform/testing/temporary_folder.h"

namespace qx::testing {

class HeadlessBrowser {
 public:
  using json = nlohmann::json;

  // How long an answer may take, in milliseconds: starting it on a busy machine takes seconds.
  static constexpr std::uint32_t kBrowserPatience = 120000;
  static constexpr const char* kProgram = "/usr/bin/chromium";

  [[nodiscard]] static bool IsInstalled() { return access(kProgram, X_OK) == 0; }

  HeadlessBrowser() {
    (void)signal(SIGPIPE, SIG_IGN);  // a browser that died is told by its missing answer
    Start();
    const json target = Call("Target.createTarget", {{"url", "about:blank"}});
    const json attached =
        Call("Target.attachToTarget", {{"targetId", target.value("targetId", "")}, {"flatten", true}});
    m_session = attached.value("sessionId", "");
    EXPECT_NE(m_session, "");
    for (const char* domain : {"Page", "Runtime", "Log", "Network", "DOM", "Accessibility"}) {
      (void)Call(std::string(domain) + ".enable");
    }
  }
  HeadlessBrowser(const HeadlessBrowser&) = delete;
  HeadlessBrowser& operator=(const HeadlessBrowser&) = delete;
  ~HeadlessBrowser() {
    close(m_to);  // it ends when nobody drives it any more
    close(m_from);
    pollfd ended = {m_descriptor, POLLIN, 0};
    if (poll(&ended, 1, 20000) != 1) (void)syscall(SYS_pidfd_send_signal, m_descriptor, SIGKILL, nullptr, 0);
    (void)waitpid(m_process, nullptr, 0);
    close(m_descriptor);
  }

  // Calls a method of the protocol; its result, an empty object after a failure, which fails the test.
  json Call(const std::string& method, const json& parameters = json::object()) {
    const int id = ++m_lastId;
    json message = {{"id", id}, {"method", method}, {"params", parameters}};
    if (!m_session.empty()) message["sessionId"] = m_session;
    Send(message.dump());
    while (auto answer = Receive()) {
      if (answer->value("id", 0) != id) {
        Take(std::move(*answer));
        continue;
      }
      if (answer->contains("result")) return (*answer)["result"];
      ADD_FAILURE() << method << ": " << answer->dump();
      return json::object();
    }
    ADD_FAILURE() << method << ": the browser gave no answer: " << Errors();
    return json::object();
  }

  // Loads a file and waits until it is shown. What was kept of the page before is forgotten.
  void Load(const std::string& file) {
    m_messages.clear();
    m_requests.clear();
    m_loaded = false;
    (void)Call("Page.navigate", {{"url", "file://" + file}});
    while (!m_loaded) {
      auto event = Receive();
      if (!event) {
        ADD_FAILURE() << file << ": isn't loaded: " << Errors();
        return;
      }
      Take(std::move(*event));
    }
  }

  // What an expression of the page's language gives, as a value; promises are waited for.
  json Evaluate(const std::string& expression) {
    const json result =
        Call("Runtime.evaluate", {{"expression", expression}, {"returnByValue", true}, {"awaitPromise", true}});
    if (result.contains("exceptionDetails")) {
      ADD_FAILURE() << expression.substr(0, 200) << "\n" << result["exceptionDetails"].dump();
      return nullptr;
    }
    return result.contains("result") ? result["result"].value("value", json()) : json();
  }

  // Size of the window in CSS pixels.
  void Resize(int width, int height) {
    (void)Call("Emulation.setDeviceMetricsOverride",
               {{"width", width}, {"height", height}, {"deviceScaleFactor", 1}, {"mobile", false}});
  }
  // "light" or "dark"; "screen" or "print".
  void Emulate(const std::string& scheme, const std::string& media = "screen") {
    (void)Call("Emulation.setEmulatedMedia",
               {{"media", media}, {"features", {{{"name", "prefers-color-scheme"}, {"value", scheme}}}}});
  }

  // A key by its name in the protocol, with its Windows key code.
  void Press(const std::string& key, int code, bool shift = false) {
    for (const char* type : {"keyDown", "keyUp"}) {
      (void)Call(
          "Input.dispatchKeyEvent",
          {{"type", type}, {"key", key}, {"code", key}, {"windowsVirtualKeyCode", code}, {"modifiers", shift ? 8 : 0}});
    }
  }
  void PointAt(double x, double y) {
    (void)Call("Input.dispatchMouseEvent", {{"type", "mouseMoved"}, {"x", x}, {"y", y}});
  }
  void Click(double x, double y) {
    PointAt(x, y);
    for (const char* type : {"mousePressed", "mouseReleased"}) {
      (void)Call("Input.dispatchMouseEvent",
                 {{"type", type}, {"x", x}, {"y", y}, {"button", "left"}, {"clickCount", 1}});
    }
  }

  // Keeps what the window shows for a human, where QX_SCREENSHOTS names a directory; not asked of the page otherwise.
  void Photograph(const std::string& name) {
    const char* const directory = std::getenv("QX_SCREENSHOTS");
    if (directory == nullptr) return;
    const json picture = Call("Page.captureScreenshot", {{"format", "png"}});
    std::ofstream(std::string(directory) + "/" + name + ".png", std::ios::binary)
        << FromBase64(picture.value("data", ""));
  }

  // Since Load(): what stands in the console, and the addresses that were asked for.
  [[nodiscard]] const std::vector<std::string>& Messages() const { return m_messages; }
  [[nodiscard]] const std::vector<std::string>& Requests() const { return m_requests; }

 private:
  void Start() {
    int to[2] = {-1, -1};
    int from[2] = {-1, -1};
    ASSERT_EQ(pipe2(to, O_CLOEXEC), 0);
    ASSERT_EQ(pipe2(from, O_CLOEXEC), 0);
    // Out of the way of 3 and 4, by which the browser knows its ends.
    const int itsIn = fcntl(to[0], F_DUPFD_CLOEXEC, 10);
    const int itsOut = fcntl(from[1], F_DUPFD_CLOEXEC, 10);
    close(to[0]);
    close(from[1]);
    m_to = to[1];
    m_from = from[0];
    // Nobody looks into the page from outside, and the machine's sandbox may be one already that allows no second one.
    std::vector<std::string> words = {kProgram,
                                      "--headless=new",
                                      "--no-sandbox",
                                      "--disable-gpu",
                                      "--disable-dev-shm-usage",
                                      "--no-first-run",
                                      "--disable-background-networking",
                                      "--disable-component-update",
                                      "--disable-sync",
                                      "--disable-extensions",
                                      "--remote-debugging-pipe",
                                      "--user-data-dir=" + m_directory + "/profile"};
    std::vector<std::string> variables = {"PATH=/usr/bin:/bin", "HOME=" + m_directory, "LC_ALL=C.UTF-8",
                                          "DBUS_SESSION_BUS_ADDRESS=unix:path=/nonexistent"};
    const auto pointers = [](std::vector<std::string>& texts) {
      std::vector<char*> all;
      for (std::string& text : texts) all.push_back(text.data());
      all.push_back(nullptr);
      return all;
    };
    const std::string errors = m_directory + "/errors";
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, 0, "/dev/null", O_RDONLY, 0);
    posix_spawn_file_actions_addopen(&actions, 1, errors.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
    posix_spawn_file_actions_adddup2(&actions, 1, 2);
    posix_spawn_file_actions_adddup2(&actions, itsIn, 3);
    posix_spawn_file_actions_adddup2(&actions, itsOut, 4);
    EXPECT_EQ(posix_spawn(&m_process, kProgram, &actions, nullptr, pointers(words).data(), pointers(variables).data()),
              0);
    posix_spawn_file_actions_destroy(&actions);
    m_descriptor = static_cast<int>(syscall(SYS_pidfd_open, m_process, 0));
    close(itsIn);
    close(itsOut);
  }

  void Send(const std::string& text) {
    // With the zero byte behind it.
    for (std::size_t at = 0; at <= text.size();) {
      const ssize_t count = write(m_to, text.c_str() + at, text.size() + 1 - at);
      if (count <= 0) return;
      at += static_cast<std::size_t>(count);
    }
  }

  std::optional<json> Receive() {
    const std::uint32_t begun = platform::TickCount();
    for (;;) {
      if (const std::size_t end = m_read.find('\0', m_searched); end != std::string::npos) {
        json message = json::parse(m_read.substr(0, end), nullptr, false);
        m_read.erase(0, end + 1);
        m_searched = 0;
        return message;
      }
      m_searched = m_read.size();
      pollfd ready = {m_from, POLLIN, 0};
      const std::uint32_t passed = platform::TickCount() - begun;
      if (passed >= kBrowserPatience || poll(&ready, 1, static_cast<int>(kBrowserPatience - passed)) != 1)
        return std::nullopt;
      char bytes[65536];
      const ssize_t count = read(m_from, bytes, sizeof bytes);
      if (count <= 0) return std::nullopt;
      m_read.append(bytes, static_cast<std::size_t>(count));
    }
  }

  void Take(json event) {
    const std::string method = event.value("method", "");
    const json& what = event["params"];
    if (method == "Page.loadEventFired") {
      m_loaded = true;
    } else if (method == "Runtime.consoleAPICalled") {
      m_messages.push_back(what["args"].dump());
    } else if (method == "Runtime.exceptionThrown") {
      m_messages.push_back(what["exceptionDetails"].dump());
    } else if (method == "Log.entryAdded") {
      m_messages.push_back(what["entry"].value("text", ""));
    } else if (method == "Network.requestWillBeSent") {
      m_requests.push_back(what["request"].value("url", ""));
    }
  }

  [[nodiscard]] std::string Errors() const {
    std::ifstream in(m_directory + "/errors");
    return {std::istreambuf_iterator<char>(in), {}};
  }

  static std::string FromBase64(const std::string& text) {
    std::string bytes;
    std::uint32_t bits = 0;
    int have = 0;
    for (const char c : text) {
      const std::string_view digits = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
      const std::size_t value = digits.find(c);
      if (value == std::string_view::npos) break;
      bits = bits << 6 | static_cast<std::uint32_t>(value);
      if ((have += 6) >= 8) bytes += static_cast<char>(bits >> (have -= 8) & 0xFF);
    }
    return bytes;
  }

  const platform::TemporaryFolder m_temporary{"qx-browser"};
  const std::string m_directory = m_temporary.Path();
  pid_t m_process = -1;
  int m_descriptor = -1;
  int m_to = -1;
  int m_from = -1;
  std::string m_read;
  std::size_t m_searched = 0;
  int m_lastId = 0;
  std::string m_session;
  bool m_loaded = false;
  std::vector<std::string> m_messages;
  std::vector<std::string> m_requests;
};

}  // namespace qx::testing
