// The preview in a real window, on an X server of the test's own, which has no screen.

#include "imaging/preview.h"

#include <gtest/gtest.h>

#include <filesystem>

#include "built_files.h"
#include "frame/zp.h"

#ifdef ZP_HAS_PREVIEW

#include <X11/Xlib.h>
#include <X11/Xutil.h>
#include <fcntl.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <csignal>
#include <cstdlib>
#include <new>
#include <optional>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "core/index.h"
#include "program_fixture.h"

namespace zp {
namespace {

namespace fs = std::filesystem;
using Clock = std::chrono::steady_clock;

constexpr auto kPatience = std::chrono::seconds(30);  // of a test on a busy machine
constexpr const char* kHostScene = "ZEPHLORE_TEST_HOST_SCENE";

// Polls until `done` is true; false if it never was.
template <class Done>
bool Await(Done done) {
  for (const auto end = Clock::now() + kPatience; Clock::now() < end;) {
    if (done()) return true;
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
  return false;
}

// A program that runs beside the test and dies with it.
class Child {
 public:
  // `display` is its DISPLAY; null for none. What it prints goes beside its folder.
  Child(const std::vector<std::string>& words, const fs::path& folder, const char* display) {
    outputFile = folder.parent_path() / "stdout";
    errorsFile = folder.parent_path() / "stderr";
    fs::remove(outputFile);  // of an earlier child, which nobody shall take for this one's
    // A build that counts leaks shall not count those of OpenGL's driver. It is unloaded by then and has no
    // name; whole stacks lead to the library that had loaded it, or to our one function that draws.
    const fs::path suppressions = folder.parent_path() / "leaks";
    WriteFile(suppressions, "leak:libGLX\nleak:^Draw$\n");
    const char* options = std::getenv("ASAN_OPTIONS");
    std::vector<std::string> all = {"env", "-u", "DISPLAY", "OMP_NUM_THREADS=1", "GALLIUM_DRIVER=softpipe"};
    all.push_back("LSAN_OPTIONS=print_suppressions=0:suppressions=" + suppressions.string());
    all.push_back(std::string("ASAN_OPTIONS=fast_unwind_on_malloc=0:") + (options ? options : ""));
    if (display != nullptr) all.push_back(std::string("DISPLAY=") + display);
    all.insert(all.end(), words.begin(), words.end());
    std::vector<char*> arguments;
    for (std::string& word : all) arguments.push_back(word.data());
    arguments.push_back(nullptr);
    id = fork();
    if (id != 0) return;
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    dup2(open(outputFile.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600), 1);
    dup2(open(errorsFile.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600), 2);
    if (chdir(folder.c_str()) == 0) execvp(arguments[0], arguments.data());
    _exit(127);
  }
  ~Child() { Kill(); }
  Child(const Child&) = delete;
  Child& operator=(const Child&) = delete;

  bool Ended() {
    if (id > 0 && waitpid(id, &rawStatus, WNOHANG) == id) id = 0;
    return id <= 0;
  }
  // The exit status; -1 if it had to be killed or a signal ended it.
  int ExitStatus() {
    if (!Await([this] { return Ended(); })) Kill();
    return WIFEXITED(rawStatus) ? WEXITSTATUS(rawStatus) : -1;
  }
  void Kill() {
    if (id <= 0) return;
    kill(id, SIGKILL);
    waitpid(id, &rawStatus, 0);
    id = 0;
  }
  std::string Output() const { return ReadFile(outputFile); }
  std::string Errors() const { return ReadFile(errorsFile); }

 private:
  fs::path outputFile, errorsFile;
  pid_t id = -1;
  int rawStatus = -1;
};

// A picture of bytes, three a pixel, top row first.
struct Screenshot {
  int width = 0, height = 0;
  std::vector<int> bytes;
  bool operator==(const Screenshot&) const = default;
};

// What a screen shows of a file's linear light: limited to 0 to 1, and that is all.
Screenshot ScreenshotOf(const fs::path& path) {
  ImageBuffer image;
  image.allowPacked = false;
  EXPECT_TRUE(LoadImage(image, path.string())) << path;
  Screenshot screen = {image.width, image.height, {}};
  for (int y = image.height - 1; y >= 0; --y)  // files are read bottom row first
    for (int x = 0; x < image.width; ++x) {
      const Vec3 color = ReadPixel(image, static_cast<std::size_t>(y * image.width + x));
      for (int c = 0; c < 3; ++c)
        screen.bytes.push_back(static_cast<int>(std::lround(255 * std::clamp(color[c], 0.0f, 1.0f))));
    }
  return screen;
}

// Within one level in every byte, because OpenGL may round as it likes, or within more for a coarse file.
bool Shows(const Screenshot& window, const Screenshot& picture, int levels = 1) {
  return window.width == picture.width && window.height == picture.height &&
         window.bytes.size() == picture.bytes.size() &&
         std::equal(window.bytes.begin(), window.bytes.end(), picture.bytes.begin(),
                    [levels](int a, int b) { return std::abs(a - b) <= levels; });
}

int ByteOf(const Screenshot& screen, int x, int y, int c) {
  return At(screen.bytes, (y * screen.width + x) * 3 + c);
}

class PreviewWindow : public ProgramTest {
 protected:
  void SetUp() override {
    ProgramTest::SetUp();
    fs::create_directories(root / "server/run");
    WriteScene("resolution 144 96\nsample 6\naov\nimage \"second.pfm\"\ntype \"depth\"\nend\n", true);
    XSetErrorHandler([](Display*, XErrorEvent*) { return 0; });  // a window may vanish under a look at it
  }
  void TearDown() override {
    Disconnect();
    XSetErrorHandler(nullptr);
    server.reset();
    ProgramTest::TearDown();
  }

  // On a free display, whose number the server prints.
  void StartServer() {
    Disconnect();
    window = None;
    server.emplace(std::vector<std::string>{"Xvfb", "-displayfd", "1", "-screen", "0", "640x480x24",
                                            "-nolisten", "tcp", "-noreset"},
                   root / "server/run", nullptr);
    std::string number;
    ASSERT_TRUE(Await([&] { return (number = server->Output()).ends_with('\n') || server->Ended(); }));
    ASSERT_FALSE(server->Ended()) << server->Errors();
    display = ":" + number.substr(0, number.size() - 1);
    connection = XOpenDisplay(display.c_str());
    ASSERT_NE(connection, nullptr);
  }
  void Disconnect() {
    if (connection != nullptr) XCloseDisplay(connection);
    connection = nullptr;
  }

  std::vector<std::string> Words(const std::string& arguments) const {
    std::vector<std::string> words = {kProgram, "render", (root / "scene").string(), "--seed", "5"};
    std::istringstream stream(arguments);
    words.insert(words.end(), std::istream_iterator<std::string>(stream), {});
    return words;
  }
  // The running test once more, in the role of a host. It ends in ways that leave its folder behind.
  std::vector<std::string> ThisTestAsHost() const {
    const std::string name = testing::UnitTest::GetInstance()->current_test_info()->name();
    return {"env", std::string(kHostScene) + "=./", "TMPDIR=" + root.string(),
            fs::read_symlink("/proc/self/exe").string(), "--gtest_filter=PreviewWindow." + name};
  }
  Screenshot Reference(int passes) const {
    const std::string name = std::to_string(passes) + ".pfm";
    Child child(Words("--quiet --sample " + std::to_string(passes) + " --output " + name), work, nullptr);
    EXPECT_EQ(child.ExitStatus(), 0);
    return ScreenshotOf(work / name);
  }

  // The program's window, by its title; None so far if there is none.
  Window FindWindow() const {
    Window rootWindow = None, parent = None, found = None;
    Window* children = nullptr;
    unsigned count = 0;
    if (XQueryTree(connection, DefaultRootWindow(connection), &rootWindow, &parent, &children, &count) == 0)
      return None;
    for (unsigned i = 0; i < count; ++i) {
      char* title = nullptr;
      if (XFetchName(connection, children[i], &title) != 0 && std::string(title) == "zephlore")
        found = children[i];
      if (title != nullptr) XFree(title);
    }
    if (children != nullptr) XFree(children);
    return found;
  }
  // What the window shows; nothing if there is no such window in sight.
  Screenshot Look() const {
    XWindowAttributes attributes = {};
    if (window == None || XGetWindowAttributes(connection, window, &attributes) == 0) return {};
    if (attributes.map_state != IsViewable) return {};
    XImage* image = XGetImage(connection, window, 0, 0, static_cast<unsigned>(attributes.width),
                              static_cast<unsigned>(attributes.height), AllPlanes, ZPixmap);
    if (image == nullptr) return {};
    Screenshot screen = {attributes.width, attributes.height, {}};
    for (int y = 0; y < image->height; ++y)
      for (int x = 0; x < image->width; ++x) {
        const unsigned long pixel = XGetPixel(image, x, y);
        for (int shift : {16, 8, 0}) screen.bytes.push_back(static_cast<int>(pixel >> shift & 255));
      }
    XDestroyImage(image);
    return screen;
  }
  // All that the window shows, one after the other, until `enough` of them is true or the program ends.
  template <class Enough>
  std::vector<Screenshot> Watch(Child& child, Enough enough) {
    std::vector<Screenshot> seen;
    EXPECT_TRUE(Await([&] {
      if (window == None && (window = FindWindow()) != None)
        XMoveWindow(connection, window, 0, 0);  // wholly into sight, as a window manager would
      Screenshot screen = Look();
      const bool black = std::all_of(screen.bytes.begin(), screen.bytes.end(), [](int b) { return b == 0; });
      if (!black && (seen.empty() || screen != seen.back())) seen.push_back(std::move(screen));
      return enough(seen) || child.Ended();
    })) << child.Errors();
    return seen;
  }
  // What a window manager does when its user clicks the cross.
  void CloseWindow() {
    XEvent event = {};
    event.xclient.type = ClientMessage;
    event.xclient.window = window;
    event.xclient.message_type = XInternAtom(connection, "WM_PROTOCOLS", False);
    event.xclient.format = 32;
    event.xclient.data.l[0] = static_cast<long>(XInternAtom(connection, "WM_DELETE_WINDOW", False));
    XSendEvent(connection, window, False, NoEventMask, &event);
    XSync(connection, False);
  }
  // The number of the last pass that the program's progress line tells.
  static int LastPass(const Child& child) {
    const std::string errors = child.Errors();
    const std::size_t at = errors.rfind("pass ");
    return at == std::string::npos ? 0 : std::atoi(errors.c_str() + at + 5);
  }

  std::optional<Child> server;
  std::string display;
  Display* connection = nullptr;
  Window window = None;
};

// Each picture that is seen is that of a pass, in order; the last stays, and is the file's, however the
// window is pulled about.
TEST_F(PreviewWindow, ShowsEveryPassAndThenTheFile) {
  constexpr int kPasses = 6;
  std::vector<Screenshot> passes;
  for (int k = 1; k <= kPasses; ++k) passes.push_back(Reference(k));
  StartServer();
  Child child(Words("--preview --quiet --progress --output a.pfm"), work, display.c_str());
  const std::vector<Screenshot> seen = Watch(child, [&](const std::vector<Screenshot>& so) {
    return !so.empty() && Shows(so.back(), passes.back());
  });
  ASSERT_FALSE(child.Ended()) << child.Errors();
  ASSERT_GE(seen.size(), 3U);
  int last = -1;
  for (const Screenshot& screen : seen) {
    int pass = 0;
    while (pass < kPasses && !Shows(screen, At(passes, pass))) ++pass;
    EXPECT_LT(pass, kPasses) << "no pass looks like this";
    EXPECT_GT(pass, last);
    last = pass;
  }
  EXPECT_EQ(ReadFile(work / "a.pfm"), ReadFile(work / "6.pfm"));
  const Screenshot& whole = seen.back();
  EXPECT_EQ(whole.bytes.size(), 3U * 144 * 96);
  // Sky above on the left, its blue beyond the screen's range; the floor below.
  EXPECT_NEAR(ByteOf(whole, 5, 5, 0), 77, 1);
  EXPECT_NEAR(ByteOf(whole, 5, 5, 1), 153, 1);
  EXPECT_EQ(ByteOf(whole, 5, 5, 2), 255);
  EXPECT_LT(ByteOf(whole, 5, 90, 2), 200);

  // Made larger the window keeps the picture at its top left; made smaller it shows that corner.
  for (const auto& [width, height] : {std::pair{180, 130}, std::pair{90, 60}}) {
    XResizeWindow(connection, window, static_cast<unsigned>(width), static_cast<unsigned>(height));
    Screenshot expected = {width, height, {}};
    for (int y = 0; y < height; ++y)
      for (int x = 0; x < width; ++x)
        for (int c = 0; c < 3; ++c) expected.bytes.push_back(x < 144 && y < 96 ? ByteOf(whole, x, y, c) : 0);
    EXPECT_TRUE(Await([&] { return Look() == expected; })) << width;
  }
  fs::remove(work / "a.pfm");
  fs::remove(work / "second.pfm");
  CloseWindow();
  CloseWindow();
  EXPECT_EQ(child.ExitStatus(), 0) << child.Errors();
  EXPECT_EQ(ReadFile(work / "a.pfm"), ReadFile(work / "6.pfm"));
  EXPECT_TRUE(fs::exists(work / "second.pfm"));
}

// Closed by its user, or lost with its server.
TEST_F(PreviewWindow, EndedEarlyTheProgramSavesWhatItShowed) {
  for (const bool lost : {false, true}) {
    fs::remove(work / "second.pfm");
    StartServer();
    Child child(Words("--preview --quiet --progress --sample 2000 --output a.pfm"), work, display.c_str());
    std::vector<Screenshot> seen =
        Watch(child, [](const std::vector<Screenshot>& so) { return so.size() >= 2; });
    ASSERT_FALSE(child.Ended()) << child.Errors();
    if (lost) {
      Disconnect();
      server->Kill();
    } else {
      CloseWindow();
      std::vector<Screenshot> rest = Watch(child, [](const std::vector<Screenshot>&) { return false; });
      if (!rest.empty()) seen.swap(rest);
    }
    EXPECT_EQ(child.ExitStatus(), lost ? 1 : 0) << child.Errors();
    EXPECT_EQ(child.Errors().find("zephlore: the preview window was lost") != std::string::npos, lost);
    EXPECT_TRUE(fs::exists(work / "second.pfm"));
    const int done = LastPass(child);
    ASSERT_GT(done, 1);
    ASSERT_LT(done, 2000);
    const Screenshot saved = Reference(done);
    EXPECT_EQ(ReadFile(work / "a.pfm"), ReadFile(work / (std::to_string(done) + ".pfm")));
    EXPECT_TRUE(lost || Shows(seen.back(), saved) || Shows(seen.back(), Reference(done - 1)));
  }
}

TEST_F(PreviewWindow, WithoutADisplayTheProgramSaysSo) {
  for (const char* nowhere : {static_cast<const char*>(nullptr), "", ":65000", "no display"}) {
    Child child(Words("--preview --output a.pfm"), work, nowhere);
    EXPECT_EQ(child.ExitStatus(), 1);
    const std::string errors = child.Errors();
    EXPECT_TRUE(errors.starts_with("zephlore: ") && errors.find("display") != std::string::npos) << errors;
    EXPECT_EQ(std::count(errors.begin(), errors.end(), '\n'), 1) << errors;
    EXPECT_TRUE(child.Output().empty() && fs::is_empty(work));
  }
}

// The window library is C: what a step throws goes around it. A second window is refused.
TEST_F(PreviewWindow, ThrowingStepClosesTheOnlyOne) {
  if (std::getenv(kHostScene) != nullptr) {
    int steps = 0, closed = 0;
    Preview preview;
    preview.width = preview.height = 16;
    preview.picture = [] { return nullptr; };
    preview.step = [&steps]() -> bool { return ++steps < 3 ? true : throw std::bad_alloc(); };
    preview.closed = [&closed] { ++closed; };
    preview.lost = [] {};
    EXPECT_EQ(PreviewObstacle(16, 16), "");
    EXPECT_NE(PreviewObstacle(16, 0), "");
    EXPECT_NE(PreviewObstacle(40000, 16), "");
    EXPECT_THROW(RunPreview(preview), std::bad_alloc);
    EXPECT_EQ(steps, 3);
    EXPECT_EQ(closed, 1);
    EXPECT_NE(PreviewObstacle(16, 16), "");
    return;
  }
  StartServer();
  Child host(ThisTestAsHost(), work, display.c_str());
  EXPECT_EQ(host.ExitStatus(), 0) << host.Output() << host.Errors();
  EXPECT_NE(host.Output().find("[  PASSED  ] 1 test"), std::string::npos);
}

// A program of another team's.
TEST_F(PreviewWindow, OfAHostEndsItsProcess) {
  if (const char* scene = std::getenv(kHostScene)) {
    zpSetPreviewWindow(true);
    zpGo(scene);
    return;
  }
  // Paths of the scene's text count from the current directory.
  fs::copy(root / "scene", work, fs::copy_options::recursive);
  const auto beauty = [this] {
    for (const fs::directory_entry& entry : fs::directory_iterator(work))
      if (entry.path().extension() == ".hdr") return entry.path();
    return fs::path();
  };
  constexpr int kLevels = 3;  // a step of the shared exponent of the brightest channel is 1/128
  StartServer();
  {
    Child host(ThisTestAsHost(), work, display.c_str());
    const std::vector<Screenshot> seen = Watch(host, [&](const std::vector<Screenshot>& so) {
      return !so.empty() && host.Output().find("close the window to exit") != std::string::npos &&
             !beauty().empty() && fs::exists(work / "second.pfm");
    });
    ASSERT_FALSE(host.Ended()) << host.Output() << host.Errors();
    ASSERT_FALSE(seen.empty());
    Screenshot last;  // of the last pass, which has been drawn or is about to be
    EXPECT_TRUE(Await([&] { return Shows(last = Look(), ScreenshotOf(beauty()), kLevels); }));
    fs::remove(beauty());
    fs::remove(work / "second.pfm");
    CloseWindow();
    EXPECT_EQ(host.ExitStatus(), 0) << host.Errors();
    EXPECT_EQ(host.Output().find("click to close"), std::string::npos);
    EXPECT_EQ(host.Output().find("PASSED"), std::string::npos) << "the host went on";
    ASSERT_FALSE(beauty().empty());
    EXPECT_TRUE(Shows(last, ScreenshotOf(beauty()), kLevels));
    EXPECT_FALSE(fs::exists(work / "second.pfm"));
  }
  fs::remove(beauty());
  Child host(ThisTestAsHost(), work, nullptr);
  EXPECT_EQ(host.ExitStatus(), 0) << host.Errors();
  for (const char* row :
       {"PASSED", "error :( \tpreview - ",
        "         click to close the preview window. happy rendering. thank you!         \n"})
    EXPECT_NE(host.Output().find(row), std::string::npos) << row;
  EXPECT_FALSE(beauty().empty());
  EXPECT_TRUE(fs::exists(work / "second.pfm"));
}

}  // namespace
}  // namespace zp

#else

TEST(Preview, BuiltWithoutIsAnObstacle) { EXPECT_NE(zp::PreviewObstacle(8, 8), ""); }

#endif
