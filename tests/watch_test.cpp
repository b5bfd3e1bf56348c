// What a render tells while it runs: lines of JSON, its report, its page.

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <sys/socket.h>

#include <algorithm>
#include <nlohmann/json.hpp>
#include <optional>
#include <sstream>
#include <string>
#include <vector>

#include "program_fixture.h"

namespace zp {
namespace {

using Json = nlohmann::json;

class Watching : public ProgramTest {
 protected:
  static constexpr char kRender[] = "render ../scene --quiet --output a.pfm --report r.json --progress=json ";

  void SetUp() override {
    ProgramTest::SetUp();
    WriteScene("resolution 64 32\nsample 20\n", true);
  }
  Json Report() const { return Json::parse(ReadFile(work / "r.json")); }
  // Every line of the error stream; throws where one is no JSON.
  static std::vector<Json> Lines(const std::string& errors) {
    std::vector<Json> lines;
    std::istringstream text(errors);
    for (std::string line; std::getline(text, line);) lines.push_back(Json::parse(line));
    return lines;
  }
};

TEST_F(Watching, LinesAndReportTellOfAWholeRender) {
  WriteFile(root / "scene/render/b.zp", "render\nclamp 0.5 0.5 0.5\nend\n");
  WriteFile(root / "scene/light/b.zp", "sky_light\ncolor 1 1 1\nimage \"lost.hdr\"\nend\n");
  const Outcome outcome = Run(std::string(kRender) + "--save-every 0.001 --format 2 --threads 2");
  ASSERT_EQ(outcome.status, 0) << outcome.errors;
  std::vector<std::string> phases;
  double elapsed = 0;
  for (const Json& line : Lines(outcome.errors)) {
    if (line.at("type") == "message") {
      EXPECT_EQ(line.at("code"), "image-unread");
      EXPECT_EQ(line.at("file"), "lost.hdr");
      continue;
    }
    if (phases.empty() || phases.back() != line.at("phase")) phases.push_back(line.at("phase"));
    EXPECT_LE(line.at("done"), line.at("total"));
    EXPECT_GE(line.at("elapsed_s"), elapsed);
    EXPECT_GT(line.at("memory_bytes"), 1'000'000);
    elapsed = line.at("elapsed_s");
  }
  for (const char* phase : {"reading", "building", "casting", "passes", "writing"})
    EXPECT_EQ(std::count(phases.begin(), phases.end(), phase) > 0, true) << phase;
  EXPECT_EQ(phases.back(), "writing");

  const Json report = Report();
  EXPECT_EQ(report.at("status"), 0);
  EXPECT_TRUE(report.at("failure").is_null());
  EXPECT_EQ(report.at("passes"), 20);
  EXPECT_GT(report.at("rays"), 64 * 32 * 20);
  EXPECT_EQ(report.at("files_written"), Json::array({"a.pfm"}));
  EXPECT_EQ(report.at("warnings").at(0).at("code"), "image-unread");
  // The sky is above the limit wherever it is seen, from the first pixel on; nothing else is as bright.
  EXPECT_EQ(report.at("not_a_number").at("samples"), 0);
  EXPECT_GE(report.at("clamped").at("samples"), 64 / 2 * 10 * 20);
  EXPECT_EQ(report.at("clamped").at("pixels").size(), 16U);
  EXPECT_EQ(report.at("clamped").at("pixels").at(1), Json::array({1, 0}));
  // The drawn seed repeats the picture; another text is another scene.
  const std::string picture = ReadFile(work / "a.pfm");
  EXPECT_EQ(Run(std::string(kRender) + "--format 2 --threads 1 --seed " + report.at("seed").dump()).status,
            0);
  EXPECT_EQ(ReadFile(work / "a.pfm"), picture);
  EXPECT_EQ(Report().at("scene").at("hash"), report.at("scene").at("hash"));
  EXPECT_EQ(Report().at("clamped"), report.at("clamped"));
  WriteFile(root / "scene/render/c.zp", "");
  Run(std::string(kRender) + "--format 2 --sample 1");
  EXPECT_NE(Report().at("scene").at("hash"), report.at("scene").at("hash"));
}

// What it sends out and reflects are finite; their sum is not.
TEST_F(Watching, SamplesThatAreNoNumbersAreCounted) {
  WriteFile(root / "scene/light/b.zp", "sky_light\ncolor 3e38 1 1\nend\n");
  WriteFile(root / "scene/shader/b.zp",
            "shader\nname \"red\"\nsurface_shader\nlambertian\ncolor 0.9 0.9 "
            "0.9\nend\nemissive\ncolor 3e38 1 1\nend\nend\nend\n");
  ASSERT_EQ(Run(std::string(kRender) + "--sample 2 --threads 2").status, 0);
  const Json odd = Report().at("not_a_number");
  EXPECT_GE(odd.at("samples"), 2 * 16);
  EXPECT_EQ(odd.at("pixels").at(0).at(1), 0) << odd;
}

// However a run ends, its report and the last line of JSON say why.
TEST_F(Watching, FailuresAreReported) {
  std::filesystem::create_directories(work / "folder.hdr");
  WriteFile(root / "other/render/a.zp", "render\nend\n");
  for (const auto& [arguments, status, code] : {std::tuple{"render ../missing", 1, "failed"},
                                                {"render ../other", 1, "failed"},
                                                {"render ../scene --output folder.hdr", 1, "failed"},
                                                {"render ../scene --colour 3", 2, "usage"},
                                                {"render ../scene --sample 0", 2, "usage"},
                                                {"render ../other --strict", 1, "scene-errors"}}) {
    std::filesystem::remove(work / "r.json");
    const Outcome outcome = Run(std::string(arguments) + " --quiet --report=r.json --progress=json");
    EXPECT_EQ(outcome.status, status) << arguments;
    const std::vector<Json> lines = Lines(outcome.errors);
    ASSERT_FALSE(lines.empty()) << arguments;
    EXPECT_EQ(lines.back().at("severity"), "fatal") << arguments;
    EXPECT_EQ(lines.back().at("code"), code) << lines.back();
    EXPECT_EQ(Report().at("failure").at("text"), lines.back().at("text"));
    EXPECT_EQ(Report().at("status"), status);
  }
  EXPECT_EQ(Run("render ../scene --report missing/r.json").status, 1);
  EXPECT_EQ(Run("render ../scene --progress=xml").status, 2);
}

TEST_F(Watching, StopsAreReported) {
  for (const bool twice : {false, true}) {
    Child child("'" + std::string(kProgram) + "' " + kRender + "--sample 65535", work);
    EXPECT_TRUE(Await([&] { return child.Errors().find("\"passes\",\"done\":1") != std::string::npos; }));
    child.Send(SIGINT);
    if (twice) child.Send(SIGTERM);
    const int status = child.ExitStatus();
    const std::vector<Json> lines = Lines(child.Errors());
    const std::string reason = Report().at("failure").at("text");
    if (twice) {  // which of the two ends it, and what it still says, is a matter of chance
      EXPECT_TRUE(reason.starts_with("stopped") || reason.starts_with("ended by a second")) << reason;
      continue;
    }
    EXPECT_EQ(reason, lines.back().at("text"));
    EXPECT_EQ(status, 1);
    EXPECT_EQ(lines.back().at("code"), "stopped");
    EXPECT_GT(Report().at("passes"), 0);
    EXPECT_EQ(Report().at("files_written"), Json::array({"a.pfm"}));
  }
}

// A render that serves its page at a port of the system's choice.
class Serving : public Watching {
 protected:
  void Start(const std::string& before, const std::string& arguments) {
    child.emplace(before + " '" + kProgram + "' " + kRender + "--seed 3 --serve=0 " + arguments, work);
    const std::string start = "http://127.0.0.1:";
    EXPECT_TRUE(Await([&] { return child->Ended() || child->Errors().find(start) != std::string::npos; }));
    host = child->Errors();
    host = host.substr(std::min(host.find(start) + 7, host.size()));
    host = host.substr(0, host.find('/'));
  }
  // The whole answer to a request with these lines of headers beside its host's.
  std::string Ask(const std::string& request, const std::string& headers, std::string asHost = {}) const {
    const int link = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in address = {};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    address.sin_port = htons(static_cast<std::uint16_t>(std::stoi(host.substr(host.find(':') + 1))));
    EXPECT_EQ(connect(link, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
    const std::string text = request + " HTTP/1.1\r\nHost: " + (asHost.empty() ? host : asHost) + "\r\n" +
                             headers + "Content-Length: 0\r\nConnection: close\r\n\r\n";
    EXPECT_EQ(send(link, text.data(), text.size(), MSG_NOSIGNAL), static_cast<ssize_t>(text.size()));
    std::string answer;
    char block[4096];
    for (ssize_t got = 0; (got = recv(link, block, sizeof block, 0)) > 0;)
      answer.append(block, static_cast<std::size_t>(got));
    close(link);
    return answer;
  }
  int Status(const std::string& request, const std::string& headers = {}, std::string asHost = {}) const {
    return std::stoi(Ask(request, headers, std::move(asHost)).substr(9, 3));
  }

  std::optional<Child> child;
  std::string host;  // with the port
};

TEST_F(Serving, ThePageAloneStopsTheRenderAndAllIsSaved) {
  Start("", "--sample 65535 --checkpoint a.zpc");
  EXPECT_EQ(Status("GET /"), 200);
  for (const char* other : {"evil.example", "127.0.0.1:1", "evil.example:80"})
    EXPECT_EQ(Status("GET /status", "", other), 421) << other;
  for (const char* origin : {"", "Origin: null\r\n", "Origin: http://evil.example\r\n"})
    EXPECT_EQ(Status("POST /stop", origin), 403) << origin;
  EXPECT_EQ(Status("GET /stop"), 404);
  EXPECT_EQ(Run("render ../scene --serve=" + host.substr(host.find(':') + 1)).status, 1) << "taken";
  EXPECT_TRUE(Await([&] { return Ask("GET /picture", "").find("X-Passes: ") != std::string::npos; }));
  EXPECT_EQ(Status("POST /stop", "Origin: http://" + host + "\r\n"), 200);
  EXPECT_EQ(child->ExitStatus(), 0) << child->Errors();
  EXPECT_GT(Report().at("passes"), 0);
  EXPECT_EQ(Report().at("files_written"), Json::array({"a.zpc", "a.pfm"}));
}

TEST_F(Serving, OthersNeedAToken) {
  EXPECT_EQ(Run("render ../scene --serve=0 --serve-address 0.0.0.0").status, 1);
  WriteFile(work / "token", "short\n");
  EXPECT_EQ(Run("render ../scene --serve=0 --serve-token-file token").status, 1);
  const std::string token = "0123456789abcdef";
  Start("env ZEPHLORE_SERVE_TOKEN=" + token, "--sample 65535");
  for (const char* path : {"/", "/status", "/?token=0123456789abcdeF", "/?token=0123456789abcdef0"})
    EXPECT_EQ(Status("GET " + std::string(path)), 401) << path;
  const std::string answer = Ask("GET /?token=" + token, "");
  const std::size_t cookie = answer.find("Set-Cookie: ") + 12;
  EXPECT_NE(answer.find("; HttpOnly; SameSite=Strict\r\n"), std::string::npos) << answer;
  EXPECT_EQ(Status("GET /status",
                   "Cookie: a=b; " + answer.substr(cookie, answer.find(';', cookie) - cookie) + "\r\n"),
            200);
}

// At exposure 0 a pixel of the page is that of `view`, to the bit.
TEST_F(Serving, BrowsersShowWhatViewMakes) {
  if (std::system("command -v chromium >/dev/null") != 0) GTEST_SKIP() << "there is no browser";
  Start("", "--sample 2 --serve-after");
  EXPECT_TRUE(Await([&] { return Ask("GET /status", "").find("\"ended\"") != std::string::npos; }));
  OutputOf("cd '" + work.string() +
           "' && HOME=. timeout 100 chromium --headless --no-sandbox --disable-gpu " +
           "--hide-scrollbars --force-color-profile=srgb --user-data-dir=browser --window-size=640,480 " +
           "--virtual-time-budget=9000 --screenshot=shot.png 'http://" + host + "/#zoom=1'");
  EXPECT_EQ(Run("view a.pfm a.png").status, 0);
  ImageBuffer shot, picture;
  shot.fileName = "shot.png";
  picture.fileName = "a.png";
  ASSERT_TRUE(LoadImage(shot, work / "shot.png") && LoadImage(picture, work / "a.png"));
  const auto isAt = [&](std::size_t left, std::size_t bottom) {
    for (std::size_t i = 0; i < 64 * 32; ++i)
      if (ReadPixel(shot, (bottom + i / 64) * 640 + left + i % 64) != ReadPixel(picture, i)) return false;
    return true;
  };
  int found = 0;
  for (std::size_t place = 0; place < 640 * (480 - 32); ++place)
    found += place % 640 <= 640 - 64 && isAt(place % 640, place / 640) ? 1 : 0;
  EXPECT_EQ(found, 1);
}

}  // namespace
}  // namespace zp
