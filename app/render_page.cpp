#include "render_page.h"

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <mutex>
#include <nlohmann/json.hpp>
#include <thread>

#include "core/index.h"
#include "core/stop.h"
#include "integrator/integrator.h"
#include "page_server.h"
#include "run_log.h"
#include "snapshots.h"

namespace zp {
namespace {

using Json = nlohmann::ordered_json;
using Clock = std::chrono::steady_clock;

struct RenderPage {
  bool after = false;
  std::string scene;
  Snapshots snapshots;
  Clock::time_point pauseAsked = Clock::now();
  std::atomic<bool> stopAsked = false;   // by a viewer, while it rendered
  std::atomic<bool> closeAsked = false;  // by a viewer, behind the end
  std::atomic<bool> endSeen = false;
  std::mutex mutex;  // of what follows
  std::string camera;
  std::int32_t width = 0, height = 0;
  std::string end;  // how it ended; empty while it runs
};
RenderPage* page = nullptr;

std::string StatusText(std::size_t image, std::size_t line) {
  const std::shared_ptr<const Snapshot> snapshot = page->snapshots.Ask(image);
  Json status = {{"scene", page->scene},
                 {"progress", Json::parse(ProgressJson(CurrentProgress()))},
                 {"images", page->snapshots.Names()},
                 {"version", snapshot ? snapshot->version : 0}};
  Json log = Json::array();
  for (const LogLine& entry : LogLines(line))
    log.push_back({{"at", entry.seconds}, {"severity", entry.severity}, {"text", entry.text}});
  status["log"] = log;
  const std::lock_guard lock(page->mutex);
  status["camera"] = page->camera;
  status["width"] = page->width;
  status["height"] = page->height;
  status["state"] = !page->end.empty() ? "ended" : page->stopAsked || Stopping() ? "stopping" : "running";
  status["end"] = page->end;
  if (!page->end.empty()) page->endSeen = true;
  return status.dump(-1, ' ', false, Json::error_handler_t::replace);
}

std::optional<PagePicture> PictureOf(std::size_t image, double exposure, int level) {
  const std::shared_ptr<const Snapshot> snapshot = page->snapshots.Ask(image);
  if (!snapshot) return {};
  PagePicture picture;
  picture.version = snapshot->version;
  picture.passes = snapshot->passes;
  const ScreenSquares squares = SquaresOf(*snapshot, level);
  picture.width = squares.width;
  picture.height = squares.height;
  picture.bytes = ScreenBytes(*snapshot, exposure, squares);
  return picture;
}

std::string ValueText(std::size_t image, std::int32_t x, std::int32_t y) {
  const std::shared_ptr<const Snapshot> snapshot = page->snapshots.Ask(image);
  const std::array<std::string, 3> texts =
      snapshot ? ValueTexts(*snapshot, x, y) : std::array<std::string, 3>();
  return texts[0].empty() ? "[]" : Json(texts).dump();
}

void TakeStop() {
  const std::lock_guard lock(page->mutex);
  if (!page->end.empty()) {
    page->closeAsked = true;
    return;
  }
  page->stopAsked = true;
  stopRequested = true;
}

// The first line of the file, or the environment's; a sentence in `problem` if that is none.
std::string TokenOf(const ServeOptions& options, const std::string& host, std::string& problem) {
  constexpr char kVariable[] = "ZEPHLORE_SERVE_TOKEN";
  std::string token;
  const std::string source = options.tokenFile.empty() ? kVariable : "'" + options.tokenFile + "'";
  if (!options.tokenFile.empty()) {
    std::ifstream file(options.tokenFile);
    std::getline(file, token);
    token.erase(token.find_last_not_of(" \r") + 1);
    if (!file) problem = "there is no token to read in " + source;
  } else if (const char* text = std::getenv(kVariable)) {
    token = text;
  }
  if (!problem.empty()) return {};
  if (token.empty() && !IsLoopback(host))
    problem = "others than this machine reach " + host + ": give a token, by " + kVariable +
              " or --serve-token-file";
  else if (const std::string reason = token.empty() ? "" : TokenProblem(token); !reason.empty())
    problem = "the token of " + source + " cannot be taken: " + reason;
  return token;
}

// Whoever looks at the page shall see the end of it.
void AwaitViewers() {
  if (!page->snapshots.AreWatched()) return;
  const auto begin = Clock::now();
  const auto isBefore = [&begin](int milliseconds) {
    return Clock::now() - begin < std::chrono::milliseconds(milliseconds);
  };
  while (!page->endSeen && isBefore(2000)) std::this_thread::sleep_for(std::chrono::milliseconds(20));
  // Behind its state it asks for the picture.
  if (page->endSeen) std::this_thread::sleep_for(std::chrono::milliseconds(500));
}

}  // namespace

std::string OpenPage(const ServeOptions& options, const std::string& scene) {
  if (!options.port) return {};
  PageAddress address;
  address.port = *options.port;
  if (!options.address.empty()) address.host = options.address;
  std::string problem;
  address.token = TokenOf(options, address.host, problem);
  if (!problem.empty()) return problem;
  page = new RenderPage;
  page->after = options.after;
  std::error_code error;
  page->scene = std::filesystem::canonical(scene, error).filename().string();
  if (error) page->scene = scene;
  const std::string reason = StartPageServer(address, {StatusText, PictureOf, ValueText, TakeStop});
  if (!reason.empty()) {
    page = nullptr;
    return "cannot serve a page at " + address.host + ", port " + std::to_string(*options.port) + ": " +
           reason;
  }
  Say({TroubleKind::kNote, "serving",
       "the picture is at " + PageUrl() + (address.token.empty() ? "" : "?token=...")});
  return {};
}

void BeginPageFrame() {
  if (page == nullptr) return;
  Camera& camera = At(cameras, settings.frame.activeCamera);
  {
    const std::lock_guard lock(page->mutex);
    page->camera = camera.name;
    page->width = camera.width;
    page->height = camera.height;
  }
  page->snapshots.Begin(camera);
}

void PageRowsDone() {
  if (page == nullptr || !page->snapshots.AreDue()) return;
  page->pauseAsked = Clock::now();
  framePause = true;
}

void PagePassDone() {
  if (page != nullptr && page->snapshots.AreDue()) page->snapshots.Take(0);
}

void PagePaused() {
  if (page == nullptr || !page->snapshots.AreDue()) return;
  page->snapshots.Take(std::chrono::duration<double>(Clock::now() - page->pauseAsked).count());
}

void EndPageFrame() {
  if (page != nullptr && (page->after || page->snapshots.AreWatched())) page->snapshots.Take(0, page->after);
}

bool ViewerStopped() { return page != nullptr && page->stopAsked; }

void ClosePage(int status) {
  if (page == nullptr) return;
  {
    const std::lock_guard lock(page->mutex);
    page->end = status != 0 ? "failed, see the log" : page->stopAsked ? "stopped and saved" : "finished";
  }
  const bool stays = page->after && status == 0 && !Stopping();
  while (stays && !page->closeAsked && !Stopping())
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
  if (!stays) AwaitViewers();
  StopPageServer();
}

}  // namespace zp
