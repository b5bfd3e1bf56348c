#include "page_server.h"

#include <arpa/inet.h>
#include <httplib.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cmath>
#include <csignal>
#include <cstring>
#include <system_error>
#include <thread>

#include "page_files.h"

namespace zp {
namespace {

using httplib::Request, httplib::Response, httplib::Server;

constexpr std::size_t kThreads = 16;     // a browser keeps up to six connections
constexpr std::size_t kMostBody = 1024;  // bytes of a request; no page sends any
constexpr int kPriority = 10;            // below that of the threads that render
constexpr std::size_t kShortestToken = 16;

// Lives until the process ends, whoever ends it.
struct PageServer {
  Server server;
  PageAddress address;
  PageSource source;
  std::thread thread;
  bool isLoopback = true;
};
PageServer* page = nullptr;

// Takes as long whatever of the two is alike.
bool IsSecret(const std::string& given, const std::string& secret) {
  volatile unsigned difference = given.size() == secret.size() ? 0 : 1;
  for (std::size_t i = 0; i < given.size(); ++i)
    difference = difference | (static_cast<unsigned char>(given[i]) ^
                               static_cast<unsigned char>(secret[i % secret.size()]));
  return difference == 0;
}

std::string HostText(const std::string& host) {
  return host.find(':') == std::string::npos ? host : '[' + host + ']';
}

// Other names mean a page of somebody else's, whose name leads here.
bool IsOwnHost(const std::string& host) {
  const std::string port = ':' + std::to_string(page->address.port);
  for (const std::string& name : {std::string("localhost"), std::string("127.0.0.1"), std::string("[::1]"),
                                  HostText(page->address.host)})
    if (host == name + port || (page->address.port == 80 && host == name)) return true;
  return false;
}

// Cookies belong to a host, whatever its ports.
std::string CookieName() { return "zephlore_" + std::to_string(page->address.port); }

std::string CookieOf(const Request& request) {
  const std::string start = CookieName() + '=';
  std::string cookies = request.get_header_value("Cookie");
  for (std::size_t at = 0; at < cookies.size();) {
    const std::size_t end = std::min(cookies.find(';', at), cookies.size());
    if (cookies.compare(at, start.size(), start) == 0)
      return cookies.substr(at + start.size(), end - at - start.size());
    at = std::min(cookies.find_first_not_of(' ', end + 1), cookies.size());
  }
  return {};
}

void Refuse(Response& response, int status, const std::string& text) {
  response.status = status;
  response.set_content(text + '\n', "text/plain");
}

// Who has given the token once keeps it as a cookie.
bool KnowsToken(const Request& request, Response& response) {
  const std::string& token = page->address.token;
  if (token.empty() || IsSecret(CookieOf(request), token)) return true;
  if (request.path != "/" || !IsSecret(request.get_param_value("token"), token)) return false;
  response.set_header("Set-Cookie", CookieName() + '=' + token + "; Path=/; HttpOnly; SameSite=Strict");
  return true;
}

// What is asked before anything else. True if the request may go on.
bool MayPass(const Request& request, Response& response) {
  const std::string host = request.get_header_value("Host");
  if (page->isLoopback && !IsOwnHost(host)) {
    Refuse(response, 421, "no page of that host is here");
    return false;
  }
  if (!KnowsToken(request, response)) {
    Refuse(response, 401, "the address lacks the token: /?token=...");
    return false;
  }
  if (request.method == "GET" || request.method == "HEAD") return true;
  if (request.method == "POST" && request.get_header_value("Origin") == "http://" + host) return true;
  Refuse(response, 403, "only the page itself may do that");
  return false;
}

template <class Number>
Number NumberOf(const Request& request, const char* name) {
  const std::string text = request.get_param_value(name);
  Number number = 0;
  std::from_chars(text.data(), text.data() + text.size(), number);
  return number;
}

void AnswerPicture(const Request& request, Response& response) {
  const double exposure = NumberOf<double>(request, "exposure");
  std::optional<PagePicture> picture =
      page->source.picture(NumberOf<std::size_t>(request, "image"), std::isfinite(exposure) ? exposure : 0,
                           NumberOf<int>(request, "level"));
  if (!picture) return Refuse(response, 404, "there is no picture yet");
  response.set_header("X-Width", std::to_string(picture->width));
  response.set_header("X-Height", std::to_string(picture->height));
  response.set_header("X-Version", std::to_string(picture->version));
  response.set_header("X-Passes", std::to_string(picture->passes));
  response.set_content(std::move(picture->bytes), "application/octet-stream");
}

struct PageFile {
  const char *path, *type;  // the path as a regular expression
  std::string_view text;
};
constexpr PageFile kPageFiles[] = {
    {"/", "text/html; charset=utf-8", kIndexHtml},
    {"/page\\.css", "text/css; charset=utf-8", kPageCss},
    {"/page\\.js", "text/javascript; charset=utf-8", kPageJs},
    {"/icon\\.svg", "image/svg+xml", kIconSvg},
};

void SetRoutes(Server& server) {
  for (const PageFile& file : kPageFiles)
    server.Get(file.path, [&file](const Request&, Response& response) {
      response.set_content(file.text.data(), file.text.size(), file.type);
    });
  server.Get("/status", [](const Request& request, Response& response) {
    response.set_content(
        page->source.status(NumberOf<std::size_t>(request, "image"), NumberOf<std::size_t>(request, "log")),
        "application/json");
  });
  server.Get("/picture", AnswerPicture);
  server.Get("/value", [](const Request& request, Response& response) {
    response.set_content(
        page->source.value(NumberOf<std::size_t>(request, "image"), NumberOf<std::int32_t>(request, "x"),
                           NumberOf<std::int32_t>(request, "y")),
        "application/json");
  });
  server.Post("/stop", [](const Request&, Response& response) {
    page->source.stop();
    response.set_content("{}", "application/json");
  });
}

void SetRules(Server& server) {
  server.set_pre_routing_handler([](const Request& request, Response& response) {
    return MayPass(request, response) ? Server::HandlerResponse::Unhandled : Server::HandlerResponse::Handled;
  });
  server.set_exception_handler([](const Request&, Response& response, const std::exception_ptr&) {
    Refuse(response, 500, "that took more than there is");
  });
  server.set_default_headers(
      {{"Content-Security-Policy",
        "default-src 'none'; script-src 'self'; style-src 'self'; img-src 'self'; "
        "connect-src 'self'; base-uri 'none'; form-action 'none'; frame-ancestors 'none'"},
       {"X-Content-Type-Options", "nosniff"},
       {"X-Frame-Options", "DENY"},
       {"Referrer-Policy", "no-referrer"},
       {"Cross-Origin-Resource-Policy", "same-origin"},
       {"Cache-Control", "no-store"}});
  server.set_payload_max_length(kMostBody);
  server.set_keep_alive_max_count(1000);
  server.set_keep_alive_timeout(2);
  server.set_tcp_nodelay(true);
  server.new_task_queue = [] { return new httplib::ThreadPool(kThreads); };
  // The library's own choice would share the port with whoever asks for it in the same way.
  server.set_socket_options([](int socket) {
    const int yes = 1;
    setsockopt(socket, SOL_SOCKET, SO_REUSEADDR, &yes, sizeof yes);
  });
}

}  // namespace

bool IsLoopback(const std::string& host) {
  in_addr four = {};
  in6_addr six = {};
  if (inet_pton(AF_INET, host.c_str(), &four) == 1) return (ntohl(four.s_addr) >> 24U) == 127;
  if (inet_pton(AF_INET6, host.c_str(), &six) == 1) return IN6_IS_ADDR_LOOPBACK(&six);
  return host == "localhost";
}

std::string TokenProblem(const std::string& token) {
  const bool isPlain = std::all_of(token.begin(), token.end(), [](char c) {
    return ('a' <= c && c <= 'z') || ('A' <= c && c <= 'Z') || ('0' <= c && c <= '9') ||
           std::strchr("-._~", c) != nullptr;
  });
  if (!isPlain) return "it may hold letters, digits and -._~ alone";
  return token.size() < kShortestToken ? "it has less than 16 characters" : "";
}

std::string StartPageServer(const PageAddress& address, PageSource source) {
  page = new PageServer{{}, address, std::move(source), {}, IsLoopback(address.host)};
  SetRoutes(page->server);
  SetRules(page->server);
  errno = 0;
  if (address.port == 0)
    page->address.port = page->server.bind_to_any_port(address.host);
  else if (!page->server.bind_to_port(address.host, address.port))
    page->address.port = -1;
  if (page->address.port < 0) {
    const int error = errno;
    if (error == EADDRINUSE) return "the port is taken";
    return error == 0 ? "there is no such address" : std::generic_category().message(error);
  }
  // Signals are for the thread that renders.
  sigset_t all, before;
  sigfillset(&all);
  pthread_sigmask(SIG_BLOCK, &all, &before);
  page->thread = std::thread([] {
    setpriority(PRIO_PROCESS, static_cast<id_t>(gettid()), kPriority);
    page->server.listen_after_bind();
  });
  pthread_sigmask(SIG_SETMASK, &before, nullptr);
  return {};
}

std::string PageUrl() {
  std::string host = page->address.host;
  char name[256] = "";
  if ((host == "0.0.0.0" || host == "::") && gethostname(name, sizeof name - 1) == 0) host = name;
  return "http://" + HostText(host) + ':' + std::to_string(page->address.port) + '/';
}

void StopPageServer() {
  page->server.stop();
  page->thread.join();
}

}  // namespace zp
