#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <csignal>
#include <fcntl.h>
#include <unistd.h>

#include <opencv2/imgcodecs.hpp>
#include <opencv2/videoio.hpp>

#include <cstring>
#include <fstream>
#include <sstream>

#include "common/SharedMemory.h"
#include "log/OVRALogImplementPrintf.h"
#include "tests/support/VidappFrames.h"
#include "tests/support/VidappProcess.h"

namespace {

using testing::HasSubstr;
using namespace vidapp::test;
using namespace std::chrono_literals;

constexpr const char* VIEW_PATH = VIDAPP_BIN_DIR "/vidapp-view";
constexpr const char* OWN_ORIGIN = "Origin: http://127.0.0.1:8080";
// A static pattern of rings, which the undistortion visibly moves.
constexpr const char* PATTERN = "pattern=circular ! video/x-raw,width=800,height=1200";
constexpr const char* TO_BGR = " ! videoconvert ! video/x-raw,format=BGR ! appsink";

// curl's command line for target on the view at 127.0.0.1:8080.
std::vector<std::string> curl(const std::string& target, std::vector<std::string> options = {}) {
    options.insert(options.begin(), {"/usr/bin/curl", "-sS", "--noproxy", "*"});
    options.push_back("http://127.0.0.1:8080" + target);
    return options;
}

// The body of the answer; with -i, the whole answer.
std::string get(const std::string& target, const std::vector<std::string>& options = {}) {
    return runProgram(curl(target, options)).out;
}

cv::Mat decoded(const std::string& bytes, int flags = cv::IMREAD_UNCHANGED) {
    return cv::imdecode(std::vector<std::uint8_t>(bytes.begin(), bytes.end()), flags);
}

// Mean absolute difference per channel value; huge when the sizes or types differ.
double meanDifference(const cv::Mat& a, const cv::Mat& b) {
    return a.size() == b.size() && a.type() == b.type()
               ? cv::norm(a, b, cv::NORM_L1) / static_cast<double>(a.total() * a.channels())
               : 1e9;
}

// The n-th part (from 1) that a viewer of a stream received (its JPEG), or "" if it did not come in 10 s.
std::string part(const Child& viewer, int n) {
    std::string jpeg;
    const auto came = [&] {
        const std::string text = viewer.out();
        std::size_t at = 0;
        for (int i = 0; i < n && at != std::string::npos; ++i) {
            at = text.find("Content-Length: ", text.find("--vidappframe\r\n", at));
        }
        const std::size_t start = text.find("\r\n\r\n", at);
        jpeg = start == std::string::npos ? "" : text.substr(start + 4, std::stoul(text.substr(at + 16)));
        return start != std::string::npos && jpeg.size() == std::stoul(text.substr(at + 16));
    };
    return waitUntil(came, 10s) ? jpeg : "";
}

// Headless Chromium showing url at 1280 x 1300, driven through its DevTools pipe: it reads commands
// on fd 3 and writes its answers on fd 4, here its standard output, each message a JSON text ended
// by a NUL byte.
class Browser {
public:
    Browser(const std::string& profileDirectory, const std::string& url) : profile(profileDirectory) {
        EXPECT_EQ(pipe2(commands, O_CLOEXEC), 0);
        std::signal(SIGPIPE, SIG_IGN); // a browser that died fails the next command, not the test program
        const std::string profileOption = "--user-data-dir=" + profile;
        chromium = std::make_unique<Child>([&] {
            (void)dup2(commands[0], 3);
            (void)dup2(STDOUT_FILENO, 4);
            execl("/usr/bin/chromium", "chromium", "--headless", "--no-sandbox", "--disable-gpu", "--hide-scrollbars",
                  "--remote-debugging-pipe", profileOption.c_str(), "about:blank", nullptr);
            return 127;
        });
        close(commands[0]);
        const std::string target = call("Target.createTarget", "{\"url\":\"" + url + "\"}", "targetId");
        session = call("Target.attachToTarget", "{\"targetId\":\"" + target + "\",\"flatten\":true}", "sessionId");
        call("Emulation.setDeviceMetricsOverride",
             "{\"width\":1280,\"height\":1300,\"deviceScaleFactor\":1,\"mobile\":false}");
    }
    ~Browser() {
        call("Browser.close", "{}");
        close(commands[1]);
        chromium->wait(10s);
    }

    // The value of a JavaScript expression that gives a string without quotes or backslashes.
    std::string evaluate(const std::string& expression) {
        return call("Runtime.evaluate", "{\"expression\":\"" + expression + "\",\"returnByValue\":true}", "value");
    }

    cv::Mat screenshot() {
        std::ofstream(profile + ".base64") << call("Page.captureScreenshot", "{}", "data");
        return decoded(runProgram({"/usr/bin/base64", "-d", profile + ".base64"}).out, cv::IMREAD_COLOR);
    }

    std::unique_ptr<Child> chromium;

private:
    // Sends a command and returns the string field name of its answer.
    std::string call(const std::string& method, const std::string& params, const std::string& name = "") {
        const std::string id = "{\"id\":" + std::to_string(++lastId) + ",";
        const std::string message = id + "\"method\":\"" + method + "\",\"params\":" + params +
                                    (session.empty() ? "" : ",\"sessionId\":\"" + session + "\"") + "}";
        std::string answer;
        const auto answered = [&] {
            const std::string out = chromium->out();
            const std::size_t at = out.find(id);
            const std::size_t end = out.find('\0', at);
            answer = end == std::string::npos ? "" : out.substr(at, end - at);
            return end != std::string::npos;
        };
        if (write(commands[1], message.c_str(), message.size() + 1) <= 0 || !waitUntil(answered, 20s)) {
            ADD_FAILURE() << method << ": no answer from the browser\n" << chromium->err();
        }
        EXPECT_TRUE(answer.find("\"error\":{") == std::string::npos &&
                    answer.find("\"exceptionDetails\"") == std::string::npos)
            << method << ": " << answer;
        const std::size_t at = answer.find("\"" + name + "\":\"");
        const std::size_t start = at + name.size() + 4;
        return at == std::string::npos ? "" : answer.substr(start, answer.find('"', start) - start);
    }

    const std::string profile;
    int commands[2] = {-1, -1}; // the browser reads from commands[0]
    int lastId = 0;
    std::string session;
};

// A request, and what must follow: its status, a part of its answer, and these bits of the flag word.
struct Request {
    const char* method;
    std::string target;
    std::vector<std::string> headers;
    int status;
    std::string part;
    std::uint64_t bits = 0;
    std::uint64_t set = 0;
};

// vidapp-view in the sandbox's network on 127.0.0.1:8080, against vidapp or against a segment the
// test writes itself.
class VidappViewTest : public VidappProcess {
protected:
    void TearDown() override {
        if (view && view->running()) {
            view->signal(SIGINT);
            const ChildResult result = view->wait(10s);
            EXPECT_TRUE(result.exited && result.exitCode == 0) << result.describe();
        }
        VidappProcess::TearDown();
    }

    void startView(const std::vector<std::string>& argv = {VIEW_PATH}) {
        view = std::make_unique<Child>(argv);
        ASSERT_TRUE(view->waitForError("vidapp-view: serving http://127.0.0.1:8080/", 10s)) << view->err();
    }

    // The status as text, once it holds part (or as it is after 10 s).
    std::string statusOnce(const std::string& part) {
        std::string status;
        waitUntil([&] { return (status = get("/status.json")).find(part) != std::string::npos; }, 10s);
        return status;
    }

    void expectAnswers(const std::vector<Request>& requests) {
        for (const auto& [method, target, headers, status, part, bits, set] : requests) {
            std::vector<std::string> options = {"-i", "-X", method, "-H", "Content-Length: 0"};
            for (const std::string& header : headers) {
                options.insert(options.end(), {"-H", header});
            }
            SCOPED_TRACE(testing::PrintToString(curl(target, options)));
            const std::string answer = get(target, options);
            EXPECT_EQ(answer.size() > 12 ? std::stoi(answer.substr(9, 3)) : 0, status) << answer;
            EXPECT_THAT(answer, HasSubstr(part));
            EXPECT_EQ(flags.value() & bits, set);
        }
    }

    // Stores a BGR frame in slot 0 as vidapp does (the pixels, then the header), in a segment made
    // as vidapp makes it at its start unless there is one.
    void writeFrame(const cv::Mat& bgr, std::uint32_t sequenceNumber) {
        if (!segment) {
            segment = std::make_unique<SharedMemory>("IMAGE_FRAME", false);
            segment->create(sizeof(ISPFrame_t), 10, false);
        }
        auto* slot = static_cast<ISPFrame_t*>(segment->getAddress(0));
        std::memcpy(slot->pixels, bgr.data, bgr.total() * bgr.elemSize());
        slot->width = static_cast<std::uint32_t>(bgr.cols);
        slot->height = static_cast<std::uint32_t>(bgr.rows);
        slot->timestamp = ovraSystemTimestamp_us();
        slot->sequenceNumber = sequenceNumber;
    }

    static cv::Mat bgrPattern(int width, int height, int seed) {
        cv::Mat bgr;
        cv::cvtColor(patternImage(width, height, seed), bgr, cv::COLOR_GRAY2BGR);
        bgr.col(0).setTo(cv::Scalar(0, 0, 255)); // a red column: colours must come out in BGR order
        return bgr;
    }

    std::unique_ptr<Child> view;
    std::unique_ptr<SharedMemory> segment;
};

TEST_F(VidappViewTest, BrowserShowsTheUndistortedCameraAndTheSequenceAdvances) {
    cv::Mat camera;
    cv::VideoCapture(std::string("videotestsrc num-buffers=1 ") + PATTERN + TO_BGR, cv::CAP_ANY).read(camera);
    ASSERT_FALSE(camera.empty());
    const cv::Mat expected = undistorted(camera);
    flags.set(VIDAPP_LOGGING | D_LIVE_STREAM_START);
    startVidapp(
        {std::string("VIDAPP_CAMERA_PIPELINE=videotestsrc is-live=true ") + PATTERN + ",framerate=10/1" + TO_BGR});
    startView({VIEW_PATH, "--allow-control"});
    ASSERT_THAT(statusOnce("\"state\":\"frame\""), HasSubstr("\"width\":800,\"height\":1200"));
    EXPECT_EQ(meanDifference(decoded(get("/snapshot.png")), expected), 0.0) << "the slot's exact pixels";

    Browser browser(workingDirectory + "/browser", "http://127.0.0.1:8080/");
    // Once the picture shows at its full width: the sequence number shown, and where the picture is.
    std::istringstream shown;
    std::uint32_t sequence = 0;
    cv::Rect2d area;
    const auto ready = [&] {
        shown.clear();
        shown.str(browser.evaluate("(p => p?.naturalWidth == 800 && [document.getElementById('sequence')"
                                   ".textContent, p.x, p.y, p.width, p.height].join(' '))(document."
                                   "getElementById('picture'))"));
        return static_cast<bool>(shown >> sequence >> area.x >> area.y >> area.width >> area.height);
    };
    ASSERT_TRUE(waitUntil(ready, 10s)) << shown.str() << "\n" << browser.chromium->err();
    const cv::Mat screen = browser.screenshot();
    // Cut where the picture is: one shown scaled differs in size from the expected one.
    EXPECT_LT(meanDifference(screen(cv::Rect(area) & cv::Rect(0, 0, screen.cols, screen.rows)), expected), 4.0)
        << "the undistorted pattern, unscaled, through JPEG";
    const std::string later = "String(+document.getElementById('sequence').textContent > " + std::to_string(sequence);
    EXPECT_TRUE(waitUntil([&] { return browser.evaluate(later + ")") == "true"; }, 5s)) << "the sequence stays";
    // The flag word in words, and the controls, whose button the browser sends with the page's origin.
    EXPECT_THAT(browser.evaluate("document.getElementById('vidapp-logs').textContent + ' / ' + "
                                 "document.getElementById('controls').style.display"),
                testing::AllOf(HasSubstr("error info debug"), testing::EndsWith(" / block")));
    browser.evaluate("document.querySelectorAll('[data-post]')[1].click()");
    EXPECT_TRUE(vidapp->waitForOutput("updateCameraStopStatus(): D_HITCH_BALL_STOP", 10s)) << view->err();
    stopVidapp();
}

TEST_F(VidappViewTest, RoutesServeTheSlotAndRefuseBadRequests) {
    const cv::Mat bgr = bgrPattern(64, 48, 1);
    writeFrame(bgr, 7);
    startView();
    EXPECT_THAT(statusOnce("\"sequenceNumber\":7"), HasSubstr("\"width\":64,\"height\":48"));
    expectAnswers({
        {"GET", "/", {}, 200, "Content-Type: text/html"},
        {"GET", "/status.json", {}, 200, "Content-Type: application/json"},
        {"GET", "/snapshot.png", {}, 200, "Content-Type: image/png"},
        {"GET", "/snapshot.jpg", {}, 200, "Content-Type: image/jpeg"},
        {"GET", "/nothing", {}, 404, "no such page"},
        {"GET", "/streamXmjpg", {}, 404, "no such page"},
        {"GET", "/stream.mjpg?quality=0", {}, 400, "quality takes 1..100"},
        {"GET", "/stream.mjpg?quality=101", {}, 400, "quality takes 1..100"},
        {"GET", "/snapshot.jpg?quality=x", {}, 400, "quality takes 1..100"},
        {"GET", "/snapshot.jpg?width=0", {}, 400, "width takes 1.."},
        {"GET", "/snapshot.jpg?width=-5", {}, 400, "width takes 1.."},
        {"GET", "/snapshot.jpg?size=3", {}, 400, "unknown parameter 'size'"},
        {"GET", "/snapshot.jpg?quality=5&quality=6", {}, 400, "given twice"},
        {"GET", "/snapshot.png?quality=5", {}, 400, "unknown parameter"},
        {"GET", "/status.json?x=1", {}, 400, "unknown parameter"},
        // Names that could be rebound to this machine are not this server's.
        {"GET", "/", {"Host: camera.example.com:8080"}, 403, "IP address or localhost"},
        {"POST", "/control/live-stream-start", {OWN_ORIGIN}, 403, "controls are off"},
    });
    EXPECT_EQ(meanDifference(decoded(get("/snapshot.png")), bgr), 0.0);
    EXPECT_LT(meanDifference(decoded(get("/snapshot.jpg?quality=95")), bgr), 3.0);
    EXPECT_EQ(decoded(get("/snapshot.jpg?width=32&quality=50")).size(), cv::Size(32, 24));
    EXPECT_EQ(decoded(get("/snapshot.jpg?width=500")).size(), cv::Size(64, 48)) << "never scaled up";
    const Child stream(curl("/stream.mjpg?width=32&quality=50", {"-iN"}));
    EXPECT_EQ(decoded(part(stream, 1)).size(), cv::Size(32, 24));
    EXPECT_THAT(stream.out(), HasSubstr("Content-Type: multipart/x-mixed-replace; boundary=vidappframe"));
    // One encoding per variant of a frame, whether snapshots or streams ask for it.
    EXPECT_THAT(statusOnce("\"control\":false"), HasSubstr("\"jpegEncodes\":4,"));
    // Exit status 1: port 8080 is taken.
    const std::pair<const char*, int> runs[] = {
        {"--listen=127.0.0.1:0", 2}, {"--listen=camera:80", 2}, {"--help", 0}, {"--allow-control", 1}};
    for (const auto& [option, exitCode] : runs) {
        EXPECT_EQ(runProgram({VIEW_PATH, option}).exitCode, exitCode) << option;
    }
}

TEST_F(VidappViewTest, ControlsObeyOnlyTheServersOwnOriginAndChangeTheFlagWord) {
    startView({VIEW_PATH, "--allow-control"});
    const char* start = "/control/live-stream-start";
    const char* foreign = "only this server's own pages";
    const std::uint64_t vidappBit = 0x2000000000ULL; // the letter L
    expectAnswers({
        {"POST", start, {}, 403, foreign, D_LIVE_STREAM_START, 0},
        {"POST", start, {"Origin: null"}, 403, foreign, D_LIVE_STREAM_START, 0},
        {"POST", start, {"Origin: http://camera.example.com"}, 403, foreign, D_LIVE_STREAM_START, 0},
        {"POST", start, {"Origin: http://127.0.0.1:8081"}, 403, foreign, D_LIVE_STREAM_START, 0},
        {"POST", start, {"Origin: http://evil:8080", "Host: evil:8080"}, 403, "IP address", D_LIVE_STREAM_START, 0},
        {"POST", start, {OWN_ORIGIN}, 200, "application/json", D_LIVE_STREAM_START, D_LIVE_STREAM_START},
        {"POST", "/control/hitch-ball-stop", {OWN_ORIGIN}, 200, "", D_HITCH_BALL_STOP, D_HITCH_BALL_STOP},
        {"POST", "/control/log?what=vidapp&state=on", {OWN_ORIGIN}, 200, "", vidappBit, vidappBit},
        {"POST", "/control/log?what=info&state=on", {OWN_ORIGIN}, 200, "", D_LOG_LEVEL_INFO, D_LOG_LEVEL_INFO},
        {"POST", "/control/log?what=info&state=off", {OWN_ORIGIN}, 200, "", D_LOG_LEVEL_INFO, 0},
        {"POST", "/control/log?what=loud&state=on", {OWN_ORIGIN}, 400, "what=vidapp|error"},
        {"POST", "/control/log?what=info", {OWN_ORIGIN}, 400, "state=on|off", D_LOG_LEVEL_INFO, 0},
        {"POST", "/control/log?what=info&state=on&x=1", {OWN_ORIGIN}, 400, "unknown parameter", D_LOG_LEVEL_INFO, 0},
    });
    EXPECT_THAT(statusOnce("\"control\":true"),
                HasSubstr("\"liveStreamStartPending\":true,\"hitchBallStopPending\":true"));
    // The profile level with the launcher's letter a is the live-stream start as well: warned of.
    ASSERT_EQ(runProgram({VIDAPP_DLOG_PATH, "0", "+a"}).exitCode, 0);
    expectAnswers({{"POST", "/control/log?what=profile&state=on", {OWN_ORIGIN}, 200, "live-stream start command"}});
}

TEST_F(VidappViewTest, EightStreamsAtMostAndEachFrameEncodedOnceForAll) {
    writeFrame(bgrPattern(64, 48, 2), 1);
    startView();
    std::vector<std::unique_ptr<Child>> streams;
    for (int i = 0; i < 8; ++i) {
        streams.push_back(std::make_unique<Child>(curl("/stream.mjpg", {"-iN"})));
        ASSERT_FALSE(part(*streams.back(), 1).empty()) << i;
    }
    expectAnswers({{"GET", "/stream.mjpg", {}, 503, "Retry-After: 5"}});
    EXPECT_THAT(statusOnce("\"streamsActive\":8"), HasSubstr("\"jpegEncodes\":1,"));
    // A new frame reaches every viewer, still encoded once.
    static_cast<ISPFrame_t*>(segment->getAddress(0))->sequenceNumber = 2;
    for (const auto& stream : streams) {
        EXPECT_FALSE(part(*stream, 2).empty());
    }
    EXPECT_THAT(statusOnce("\"streamsRefused\":1"), HasSubstr("\"jpegEncodes\":2,"));
    streams.pop_back(); // a viewer that leaves frees its place
    EXPECT_THAT(statusOnce("\"streamsActive\":7"), HasSubstr("\"streamsActive\":7"));
    EXPECT_FALSE(part(Child(curl("/stream.mjpg", {"-iN"})), 1).empty());
}

TEST_F(VidappViewTest, WaitsForTheSegmentAndAttachesAgainWhenItIsMadeAnew) {
    startView();
    EXPECT_THAT(statusOnce("\"state\":\"absent\""), HasSubstr("IMAGE_FRAME1: No such file or directory"));
    expectAnswers({{"GET", "/snapshot.png", {}, 503, "no frame segment"}});
    const Child stream(curl("/stream.mjpg?quality=100", {"-iN"})); // waits for frames to come

    segment = std::make_unique<SharedMemory>("IMAGE_FRAME", false);
    segment->create(sizeof(ISPFrame_t), 10, false);
    statusOnce("\"state\":\"empty\"");
    expectAnswers({{"GET", "/snapshot.jpg", {}, 503, "slot 0 has no frame yet"}});
    const cv::Mat first = bgrPattern(64, 48, 3);
    writeFrame(first, 11);
    EXPECT_LT(meanDifference(decoded(part(stream, 1)), first), 8.0);

    segment.reset(); // vidapp stops: its objects go
    EXPECT_THAT(statusOnce("\"state\":\"absent\""), HasSubstr("\"frame\":null"));
    expectAnswers({{"GET", "/snapshot.png", {}, 503, "no frame segment"}});
    const cv::Mat second = bgrPattern(32, 24, 4);
    writeFrame(second, 11); // in a segment made anew, as vidapp makes it when it starts again
    EXPECT_THAT(statusOnce("\"width\":32"), HasSubstr("\"detaches\":1,"));
    EXPECT_EQ(meanDifference(decoded(get("/snapshot.png")), second), 0.0);
    EXPECT_LT(meanDifference(decoded(part(stream, 2)), second), 8.0) << "the open stream goes on";
}

} // namespace
