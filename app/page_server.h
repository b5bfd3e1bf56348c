// app/page_server.h: the page of a render over HTTP. Knows nothing of renders: what it shows, it asks for, on
// threads of its own and of low priority.

#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <string>

namespace zp {

struct PagePicture {
  std::int32_t width = 0, height = 0;
  std::uint64_t version = 0;
  std::uint32_t passes = 0;
  std::string bytes;  // red, green, blue, opacity of each pixel, row by row from the top
};

// All are called by any thread of the server, several at a time.
struct PageSource {
  //   image  number of the image that is looked at
  //   line   first line of the log that is wanted
  std::function<std::string(std::size_t image, std::size_t line)> status;  // JSON
  std::function<std::optional<PagePicture>(std::size_t image, double exposure, int level)> picture;
  std::function<std::string(std::size_t image, std::int32_t x, std::int32_t y)> value;  // JSON
  std::function<void()> stop;
};

struct PageAddress {
  std::string host = "127.0.0.1";
  int port = 8000;    // 0: any that is free
  std::string token;  // that browsers have to give; empty: none
};

// Whether only this machine's own programs reach the host.
bool IsLoopback(const std::string& host);
// Why no browser could be asked for the text as a token; empty if one can.
std::string TokenProblem(const std::string& token);

// One in the life of a process. Why nothing can be served there, as the rest of a sentence, else empty.
std::string StartPageServer(const PageAddress& address, PageSource source);
// Of the server that runs.
std::string PageUrl();
// Returns when no request is being answered any more.
void StopPageServer();

}  // namespace zp
