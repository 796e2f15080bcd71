// vidapp-view: the camera as vidapp undistorts it, live in a web browser, with vidapp's state and
// the debug flag word in words. It reads slot 0 of "IMAGE_FRAME" (read-only, learning of new frames
// from the slot's header), encodes each new frame once for every viewer, and with --allow-control
// lets the page start the live stream, stop the capture and switch vidapp's logging.

#include <algorithm>
#include <arpa/inet.h>
#include <atomic>
#include <cctype>
#include <chrono>
#include <condition_variable>
#include <csignal>
#include <cstdint>
#include <cstdio>
#include <deque>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <pthread.h>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include <httplib.h>
#include <opencv2/core.hpp>
#include <opencv2/imgcodecs.hpp>
#include <opencv2/imgproc.hpp>

#include "log/DynamicDebug.h"
#include "log/OVRALogImplementPrintf.h"
#include "tools/FlagWordText.h"
#include "tools/FrameSlotReader.h"
#include "tools/StopSignals.h"
#include "tools/ToolSupport.h"

namespace {

using namespace vidapp::tools;
using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;

constexpr const char* USAGE = "usage: vidapp-view [--listen ADDR:PORT] [--allow-control] | --help\n";
constexpr const char* DEFAULT_HOST = "127.0.0.1";
constexpr int DEFAULT_PORT = 8080;
constexpr int DEFAULT_QUALITY = 80;
constexpr std::uint64_t MAX_WIDTH = 8192;
constexpr int MAX_STREAMS = 8;
// Every stream holds a worker for as long as it runs; the rest serve the page, its polls and the
// refusals of streams over the limit.
constexpr std::size_t WORKERS = MAX_STREAMS + 8;
// How often slot 0's header is looked at, and how soon a vanished or replaced segment is noticed.
constexpr auto HEADER_POLL = 5ms;
constexpr auto SEGMENT_CHECK = 200ms;
constexpr int COPY_ATTEMPTS = 3;
// Pictures kept of one frame at most, beyond those of the running streams.
constexpr std::size_t MAX_PICTURES = 32;
// The frame rate is measured over this many frames.
constexpr std::size_t RATE_FRAMES = 20;
constexpr const char* BOUNDARY = "vidappframe";

void printToolHelp() {
    std::printf("%s", USAGE);
    std::printf("Serves the camera picture of vidapp (slot 0 of %s, as undistorted by vidapp) and vidapp's\n"
                "state over HTTP, for a web browser.\n"
                "\n"
                "  --listen ADDR:PORT   where to listen (default %s:%d); ADDR is an IPv4 address, [IPv6]\n"
                "                       or localhost\n"
                "  --allow-control      offer the controls: live-stream start, hitch-ball stop, vidapp's log\n"
                "                       levels (POST requests, accepted only from this server's own pages)\n"
                "  --help               print this text\n"
                "\n"
                "Routes:\n"
                "  /                  the page: live picture, frame header, frame rate, the flag word\n"
                "  /stream.mjpg       multipart JPEG stream; ?quality=1..100 (default %d), ?width=N (scaled down)\n"
                "  /snapshot.jpg      the latest frame as JPEG (same parameters)\n"
                "  /snapshot.png      the latest frame's exact pixels\n"
                "  /status.json       everything the page shows, and counters\n"
                "At most %d streams run at once. Requests naming this server by anything but an IP address or\n"
                "localhost are refused.\n"
                "Exit status: 0 stopped by SIGINT or SIGTERM; 1 cannot listen; 2 usage error.\n",
                FRAME_SEGMENT, DEFAULT_HOST, DEFAULT_PORT, DEFAULT_QUALITY, MAX_STREAMS);
}

struct Options {
    std::string host = DEFAULT_HOST; // as bind() takes it: IPv6 without brackets
    int port = DEFAULT_PORT;
    bool allowControl = false;
    bool help = false;
};

// "ADDR:PORT" with ADDR an IPv4 literal, [IPv6] or localhost, PORT 1..65535.
bool parseListen(const std::string& text, Options& options) {
    const std::size_t colon = text.rfind(':');
    if (colon == std::string::npos) {
        return false;
    }
    std::string host = text.substr(0, colon);
    const std::optional<std::uint64_t> port = parseUnsigned(text.substr(colon + 1), 1, 65535);
    unsigned char address[16];
    if (host.size() > 2 && host.front() == '[' && host.back() == ']') {
        host = host.substr(1, host.size() - 2);
        if (inet_pton(AF_INET6, host.c_str(), address) != 1) {
            return false;
        }
    } else if (host != "localhost" && inet_pton(AF_INET, host.c_str(), address) != 1) {
        return false;
    }
    if (!port) {
        return false;
    }
    options.host = host;
    options.port = static_cast<int>(*port);
    return true;
}

bool parseOptions(int argc, char** argv, Options& options, std::string& error) {
    for (int i = 1; i < argc; ++i) {
        const OptionText option = splitOption(argv[i]);
        const bool takesValue = option.name == "--listen";
        std::string value;
        if (!readOptionValue(option, takesValue, argc, argv, i, value, error)) {
            return false;
        }
        if (option.name == "--listen") {
            if (!parseListen(value, options)) {
                error = "--listen takes ADDR:PORT (an IPv4 address, [IPv6] or localhost; port 1..65535), not '" +
                        value + "'";
                return false;
            }
        } else if (option.name == "--allow-control") {
            options.allowControl = true;
        } else if (option.name == "--help" || option.name == "-h") {
            options.help = true;
        } else {
            error = "unknown argument '" + option.name + "'";
            return false;
        }
    }
    return true;
}

// ---- JSON ----

std::string jsonString(const std::string& text) {
    std::string out = "\"";
    for (const char c : text) {
        if (c == '"' || c == '\\') {
            out += '\\';
            out += c;
        } else if (static_cast<unsigned char>(c) < 0x20) {
            char escaped[8];
            std::snprintf(escaped, sizeof escaped, "\\u%04x", static_cast<unsigned>(c));
            out += escaped;
        } else {
            out += c;
        }
    }
    return out + "\"";
}

std::string jsonList(const std::vector<std::string>& items) {
    std::string out = "[";
    for (const std::string& item : items) {
        out += (out.size() > 1 ? "," : "") + jsonString(item);
    }
    return out + "]";
}

const char* jsonBool(bool value) {
    return value ? "true" : "false";
}

// ---- frames and their pictures ----

enum class Format { Jpeg, Png };

// One way of encoding a frame; each is encoded once per frame, whoever asks.
struct Variant {
    Format format = Format::Jpeg;
    int quality = DEFAULT_QUALITY;
    int width = 0; // 0: the frame's own; the picture is never scaled up
    auto operator<=>(const Variant&) const = default;
};

struct Frame {
    FrameHeader header;
    std::vector<std::uint8_t> bgr;
    Clock::time_point seenAt;
    std::uint64_t generation = 0; // counts the frames taken, from 1
};

struct Picture {
    std::uint64_t generation = 0;
    std::shared_ptr<const std::vector<std::uint8_t>> bytes; // null: the encoder failed
};

enum class SlotState { Absent, Empty, Unfit, Frame };

const char* slotStateName(SlotState state) {
    switch (state) {
    case SlotState::Absent:
        return "absent";
    case SlotState::Empty:
        return "empty";
    case SlotState::Unfit:
        return "unfit";
    case SlotState::Frame:
        return "frame";
    }
    return "?";
}

struct Counters {
    std::uint64_t framesSeen = 0;  // new headers seen in slot 0
    std::uint64_t framesTaken = 0; // frames copied out whole
    std::uint64_t copyRetries = 0; // copies made again because vidapp stored a frame meanwhile
    std::uint64_t framesMixed = 0; // frames given up after COPY_ATTEMPTS copies
    std::uint64_t jpegEncodes = 0;
    std::uint64_t pngEncodes = 0;
    std::uint64_t encodeFailures = 0;
    std::uint64_t encodeMicroseconds = 0; // JPEG encoding (with scaling) in all
    std::uint64_t attaches = 0;
    std::uint64_t detaches = 0; // segment gone or replaced
    std::uint64_t streamsServed = 0;
    std::uint64_t streamsRefused = 0;
    int streamsActive = 0;
};

struct StatusView {
    SlotState state = SlotState::Absent;
    std::string problem;
    std::shared_ptr<const Frame> frame;
    double frameRate = 0.0;
    Counters counters;
};

// The encoder thread's watch on slot 0 and what the viewers share: the latest frame, copied out
// whole, and its pictures, each encoded once by the encoder thread. Viewers wait on `changed`;
// the encoder waits on `work` (new demands) between looks at the header. Streams register their
// variant so that each new frame is encoded in it without being asked.
class FrameHub {
public:
    explicit FrameHub(bool followFlagWord) : followsFlagWord(followFlagWord) {}
    // The encoder thread's body, until stop(); poll() is one look at the slot, which the first
    // caller may also make before that thread starts.
    void run();
    void poll();
    void stop() {
        {
            const std::lock_guard<std::mutex> lock(mutex);
            stopping = true;
        }
        changed.notify_all();
        work.notify_all();
    }

    // The latest frame in variant, waiting for its encoding (at most 3 s). Nothing, with the
    // reason, when there is no frame (or the tool stops).
    std::optional<Picture> snapshot(const Variant& variant, std::string& why) {
        std::unique_lock<std::mutex> lock(mutex);
        if (!latest) {
            why = reasonForNoFrame();
            return std::nullopt;
        }
        const std::uint64_t wanted = latest->generation;
        if (!isEncoded(variant, wanted)) {
            demands.insert(variant);
            work.notify_one();
            changed.wait_for(lock, 3s, [&] { return stopping || !latest || isEncoded(variant, wanted); });
        }
        if (!isEncoded(variant, wanted)) {
            why = latest ? "the frame could not be encoded in time" : reasonForNoFrame();
            return std::nullopt;
        }
        return encoded.at(variant);
    }

    bool addStream(const Variant& variant) {
        const std::lock_guard<std::mutex> lock(mutex);
        if (counters.streamsActive >= MAX_STREAMS) {
            ++counters.streamsRefused;
            return false;
        }
        ++counters.streamsActive;
        ++counters.streamsServed;
        ++streams[variant];
        work.notify_one();
        return true;
    }

    void removeStream(const Variant& variant) {
        const std::lock_guard<std::mutex> lock(mutex);
        --counters.streamsActive;
        if (--streams[variant] == 0) {
            streams.erase(variant);
        }
    }

    enum class Wait { Picture, Nothing, Stopping };
    // Waits up to timeout for a picture in variant newer than generation `after`.
    Wait nextPicture(const Variant& variant, std::uint64_t after, Picture& picture, Clock::duration timeout) {
        std::unique_lock<std::mutex> lock(mutex);
        const auto newer = [&] {
            const auto found = encoded.find(variant);
            return found != encoded.end() && found->second.generation > after && found->second.bytes;
        };
        changed.wait_for(lock, timeout, [&] { return stopping || newer(); });
        if (stopping) {
            return Wait::Stopping;
        }
        if (!newer()) {
            return Wait::Nothing;
        }
        picture = encoded.at(variant);
        return Wait::Picture;
    }

    StatusView status() const {
        const std::lock_guard<std::mutex> lock(mutex);
        StatusView view{state, problem, latest, 0.0, counters};
        // Over the last frames; 0 once none came for twice their mean interval (and a second).
        if (arrivals.size() >= 2) {
            const std::chrono::duration<double> span = arrivals.back() - arrivals.front();
            const double intervals = static_cast<double>(arrivals.size() - 1);
            const std::chrono::duration<double> quiet = Clock::now() - arrivals.back();
            if (span.count() > 0 && quiet.count() < std::max(1.0, 2 * span.count() / intervals)) {
                view.frameRate = intervals / span.count();
            }
        }
        return view;
    }

private:
    std::string reasonForNoFrame() const {
        switch (state) {
        case SlotState::Absent:
            return "no frame segment: " + problem;
        case SlotState::Empty:
            return "slot 0 has no frame yet";
        case SlotState::Unfit:
            return "slot 0's header does not fit the slot: " + problem;
        case SlotState::Frame:
            break;
        }
        return "no frame";
    }

    bool isEncoded(const Variant& variant, std::uint64_t generation) const {
        const auto found = encoded.find(variant);
        return found != encoded.end() && found->second.generation >= generation;
    }

    void keepAttached(Clock::time_point now);
    void look();
    void setState(SlotState newState, const std::string& why);
    void encodeDemanded();
    Picture encode(const Frame& frame, const Variant& variant);

    // The encoder thread's own.
    const bool followsFlagWord;
    Clock::time_point nextRefresh;
    FrameSlotReader reader{0};
    std::optional<FrameHeader> lastHeader; // the header last taken (or found unusable)
    Clock::time_point nextAttach;
    Clock::time_point nextCheck;
    std::vector<std::uint8_t> scratch;

    mutable std::mutex mutex; // guards everything below
    std::condition_variable changed;
    std::condition_variable work;
    bool stopping = false;
    SlotState state = SlotState::Absent;
    std::string problem;
    std::shared_ptr<const Frame> latest;
    std::uint64_t generations = 0;
    std::map<Variant, Picture> encoded;     // pictures of the latest frame
    std::map<Variant, int> streams;         // the variants of the running streams
    std::set<Variant> demands;              // snapshots waiting for the latest frame in these (until encoded)
    std::deque<Clock::time_point> arrivals; // of the last RATE_FRAMES frames
    Counters counters;
};

void FrameHub::run() {
    pthread_setname_np(pthread_self(), "view-encoder");
    for (;;) {
        {
            std::unique_lock<std::mutex> lock(mutex);
            work.wait_for(lock, HEADER_POLL, [&] { return stopping || !demands.empty(); });
            if (stopping) {
                return;
            }
        }
        poll();
    }
}

void FrameHub::poll() {
    const Clock::time_point now = Clock::now();
    if (followsFlagWord && now >= nextRefresh) {
        // Follows an operator's removal of the word, as vidapp does, once a second.
        nextRefresh = now + 1s;
        (void)refreshDLogInterface();
    }
    keepAttached(now);
    if (reader.attached() && (!lastHeader || readHeader(reader.frame()) != *lastHeader)) {
        look();
    }
    encodeDemanded();
}

// Attaches while the segment is away (vidapp not started, or stopped), and lets go of a segment
// that vidapp removed or made anew, so that the next attach maps the new one.
void FrameHub::keepAttached(Clock::time_point now) {
    if (reader.attached() && now >= nextCheck) {
        nextCheck = now + SEGMENT_CHECK;
        if (reader.replaced()) {
            reader.detach();
            lastHeader.reset();
            const std::lock_guard<std::mutex> lock(mutex);
            ++counters.detaches;
        }
    }
    if (!reader.attached() && now >= nextAttach) {
        nextAttach = now + SEGMENT_CHECK;
        std::string why;
        if (reader.attachWhenComplete(why)) {
            nextCheck = now + SEGMENT_CHECK;
            const std::lock_guard<std::mutex> lock(mutex);
            ++counters.attaches;
        } else {
            setState(SlotState::Absent, why);
        }
    }
}

// A header not seen before: the frame is copied out at once, while vidapp rests between frames.
void FrameHub::look() {
    const SlotCopy copy = copyPixels(reader.frame(), 3, COPY_ATTEMPTS, scratch);
    {
        const std::lock_guard<std::mutex> lock(mutex);
        counters.copyRetries += copy.retries;
        if (copy.header.written()) {
            counters.framesSeen += 1 + copy.retries;
        }
        if (copy.copied && !copy.consistent) {
            ++counters.framesMixed; // the next look copies again
            return;
        }
    }
    lastHeader = copy.header;
    if (!copy.header.written()) {
        setState(SlotState::Empty, "");
        return;
    }
    if (!copy.copied) {
        setState(SlotState::Unfit, std::to_string(copy.header.width) + " x " + std::to_string(copy.header.height) +
                                       " x 3 bytes are more than the slot's " +
                                       std::to_string(ISPFrame_t::PIXELS_SIZE));
        return;
    }
    auto frame = std::make_shared<Frame>();
    frame->header = copy.header;
    frame->bgr.swap(scratch);
    frame->seenAt = Clock::now();
    {
        const std::lock_guard<std::mutex> lock(mutex);
        frame->generation = ++generations;
        latest = std::move(frame);
        encoded.clear(); // pictures of older frames are never sent again
        state = SlotState::Frame;
        problem.clear();
        ++counters.framesTaken;
        arrivals.push_back(latest->seenAt);
        if (arrivals.size() > RATE_FRAMES) {
            arrivals.pop_front();
        }
    }
    changed.notify_all();
}

void FrameHub::setState(SlotState newState, const std::string& why) {
    {
        const std::lock_guard<std::mutex> lock(mutex);
        state = newState;
        problem = why;
        if (newState != SlotState::Frame) {
            latest.reset();
            encoded.clear();
            arrivals.clear();
        }
    }
    changed.notify_all();
}

// Encodes the latest frame in every variant asked for that it is not encoded in yet.
void FrameHub::encodeDemanded() {
    std::shared_ptr<const Frame> frame;
    std::vector<Variant> todo;
    {
        const std::lock_guard<std::mutex> lock(mutex);
        if (!latest) {
            demands.clear();
            return;
        }
        frame = latest;
        std::erase_if(demands, [&](const Variant& variant) { return isEncoded(variant, frame->generation); });
        for (const auto& [variant, count] : streams) {
            if (!isEncoded(variant, frame->generation)) {
                todo.push_back(variant);
            }
        }
        for (const Variant& variant : demands) {
            if (!streams.contains(variant)) {
                todo.push_back(variant);
            }
        }
    }
    for (const Variant& variant : todo) {
        Picture picture = encode(*frame, variant);
        {
            const std::lock_guard<std::mutex> lock(mutex);
            if (latest != frame) {
                return; // a newer frame came meanwhile: the next pass encodes that one
            }
            // Snapshots may ask for any number of variants of one frame: past the limit, the
            // pictures kept for them go (those of the streams stay).
            if (encoded.size() >= MAX_PICTURES) {
                std::erase_if(encoded, [&](const auto& entry) { return !streams.contains(entry.first); });
            }
            encoded[variant] = std::move(picture);
            demands.erase(variant);
        }
        changed.notify_all();
    }
}

Picture FrameHub::encode(const Frame& frame, const Variant& variant) {
    const auto started = Clock::now();
    const int width = static_cast<int>(frame.header.width);
    const int height = static_cast<int>(frame.header.height);
    // The Mat only views the copy.
    const cv::Mat bgr(height, width, CV_8UC3, const_cast<std::uint8_t*>(frame.bgr.data()));
    auto bytes = std::make_shared<std::vector<std::uint8_t>>();
    bool done = false;
    try {
        if (variant.format == Format::Png) {
            done = cv::imencode(".png", bgr, *bytes, {cv::IMWRITE_PNG_COMPRESSION, 1});
        } else {
            cv::Mat source = bgr;
            if (variant.width != 0 && variant.width < width) {
                const int scaledHeight =
                    std::max(1, static_cast<int>(static_cast<long long>(height) * variant.width / width));
                cv::resize(bgr, source, cv::Size(variant.width, scaledHeight), 0, 0, cv::INTER_AREA);
            }
            done = cv::imencode(".jpg", source, *bytes, {cv::IMWRITE_JPEG_QUALITY, variant.quality});
        }
    } catch (const cv::Exception& e) {
        std::fprintf(stderr, "vidapp-view: encoding frame %u failed: %s\n", frame.header.sequenceNumber, e.what());
        done = false;
    }
    const auto micros = std::chrono::duration_cast<std::chrono::microseconds>(Clock::now() - started).count();
    const std::lock_guard<std::mutex> lock(mutex);
    if (!done) {
        ++counters.encodeFailures;
        return {frame.generation, nullptr};
    }
    if (variant.format == Format::Png) {
        ++counters.pngEncodes;
    } else {
        ++counters.jpegEncodes;
        counters.encodeMicroseconds += static_cast<std::uint64_t>(micros);
    }
    return {frame.generation, std::move(bytes)};
}

// ---- the flag word ----

class FlagWord {
public:
    explicit FlagWord(bool isAttached) : attached(isAttached) {}
    bool isAttached() const { return attached; }

    // The system's word, read as the DynamicDebug functions read it.
    std::uint64_t read() const {
        std::uint64_t* word = std::atomic_ref<std::uint64_t*>(shm_dlog_detail).load(std::memory_order_acquire);
        return std::atomic_ref<std::uint64_t>(*word).load(std::memory_order_relaxed);
    }

    // Applies one command string as vidapp-dlog does; a warning when it left the live-stream
    // start pending without being asked to.
    std::string apply(const std::string& command) {
        const std::lock_guard<std::mutex> lock(mutex);
        const bool pendingBefore = isLiveStreamStartPending(read());
        setDebugBits(command.c_str());
        const bool asked = command.find(')') != std::string::npos;
        if (!pendingBefore && !asked && isLiveStreamStartPending(read())) {
            return "the profile level and the letter a together are the live-stream start command: vidapp will "
                   "start the camera";
        }
        return "";
    }

private:
    const bool attached;
    std::mutex mutex; // one command at a time, so that the warning belongs to its command
};

std::string flagWordJson(const FlagWord& flags) {
    if (!flags.isAttached()) {
        return "{\"attached\":false}";
    }
    const std::uint64_t word = flags.read();
    const DecodedFlagWord decoded = decodeFlagWord(word);
    char hex[32];
    std::snprintf(hex, sizeof hex, "%llx", static_cast<unsigned long long>(word));
    std::vector<std::string> vidappLevels;
    if ((word & vidappBit()) != 0) {
        vidappLevels = decoded.levels;
    }
    return std::string("{\"attached\":true,\"hex\":") + jsonString(hex) + ",\"levels\":" + jsonList(decoded.levels) +
           ",\"applications\":" + jsonList(decoded.applications) + ",\"vidappLogs\":" + jsonList(vidappLevels) +
           ",\"commands\":" + jsonList(decoded.commands) + ",\"otherBits\":" + jsonList(decoded.otherBits) +
           ",\"liveStreamStartPending\":" + jsonBool(decoded.liveStreamStartPending) +
           ",\"hitchBallStopPending\":" + jsonBool(decoded.hitchBallStopPending) +
           ",\"profiler\":" + jsonList(decoded.profiler) + "}";
}

std::string statusJson(const StatusView& view, const FlagWord& flags, bool control) {
    std::string frame = "null";
    if (view.frame) {
        const FrameHeader& header = view.frame->header;
        // The time stamp is microseconds divided by CLOCK_DIVISOR, as vidapp stamps it.
        const std::uint64_t divisor = getClockDivisor();
        const std::uint64_t now = ovraSystemTimestamp_us();
        std::string age = "null";
        if (divisor != 0 && now >= header.timestamp) {
            age = std::to_string((now - header.timestamp) * divisor / 1000);
        }
        const auto seen = std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - view.frame->seenAt);
        frame = "{\"sequenceNumber\":" + std::to_string(header.sequenceNumber) +
                ",\"width\":" + std::to_string(header.width) + ",\"height\":" + std::to_string(header.height) +
                ",\"timestamp\":" + std::to_string(header.timestamp) + ",\"ageMs\":" + age +
                ",\"seenMsAgo\":" + std::to_string(seen.count()) + "}";
    }
    const Counters& c = view.counters;
    char rate[32];
    std::snprintf(rate, sizeof rate, "%.2f", view.frameRate);
    const std::uint64_t averageEncode = c.jpegEncodes == 0 ? 0 : c.encodeMicroseconds / c.jpegEncodes;
    return std::string("{\"segment\":{\"name\":") + jsonString(FRAME_SEGMENT) +
           ",\"slot\":0,\"state\":" + jsonString(slotStateName(view.state)) +
           ",\"problem\":" + jsonString(view.problem) + "},\"frame\":" + frame + ",\"frameRate\":" + rate +
           ",\"clockDivisor\":" + std::to_string(getClockDivisor()) + ",\"flagWord\":" + flagWordJson(flags) +
           ",\"control\":" + jsonBool(control) + ",\"counters\":{\"framesSeen\":" + std::to_string(c.framesSeen) +
           ",\"framesTaken\":" + std::to_string(c.framesTaken) + ",\"copyRetries\":" + std::to_string(c.copyRetries) +
           ",\"framesMixed\":" + std::to_string(c.framesMixed) + ",\"jpegEncodes\":" + std::to_string(c.jpegEncodes) +
           ",\"pngEncodes\":" + std::to_string(c.pngEncodes) +
           ",\"encodeFailures\":" + std::to_string(c.encodeFailures) +
           ",\"jpegEncodeMicrosecondsAverage\":" + std::to_string(averageEncode) +
           ",\"attaches\":" + std::to_string(c.attaches) + ",\"detaches\":" + std::to_string(c.detaches) +
           ",\"streamsActive\":" + std::to_string(c.streamsActive) +
           ",\"streamsServed\":" + std::to_string(c.streamsServed) +
           ",\"streamsRefused\":" + std::to_string(c.streamsRefused) +
           ",\"streamLimit\":" + std::to_string(MAX_STREAMS) + "}}";
}

// ---- the page ----

constexpr const char* PAGE = R"PAGE(<!doctype html>
<html lang="en">
<head>
<meta charset="utf-8">
<title>vidapp-view</title>
<style>
body { font: 14px sans-serif; margin: 12px; background: #1e1e1e; color: #ddd; display: flex; gap: 16px;
       align-items: flex-start; }
#picture { display: block; max-width: calc(100vw - 420px); max-height: calc(100vh - 24px); background: #000;
           min-width: 160px; min-height: 120px; }
#side { width: 380px; }
h1 { font-size: 18px; margin: 0 0 8px; } h2 { font-size: 15px; margin: 14px 0 4px; }
table { border-collapse: collapse; } td { padding: 2px 8px 2px 0; vertical-align: top; }
td:first-child { color: #999; white-space: nowrap; }
.bad { color: #f88; } .pending { color: #fc6; } #controls { display: none; } button { margin: 2px 4px 2px 0; }
label { margin-right: 8px; white-space: nowrap; }
</style>
</head>
<body>
<img id="picture" src="/stream.mjpg" alt="camera picture">
<div id="side">
<h1>vidapp-view</h1>
<table>
<tr><td>segment</td><td id="segment">-</td></tr>
<tr><td>sequence</td><td id="sequence">-</td></tr>
<tr><td>size</td><td id="size">-</td></tr>
<tr><td>time stamp</td><td id="timestamp">-</td></tr>
<tr><td>age</td><td id="age">-</td></tr>
<tr><td>frame rate</td><td id="rate">-</td></tr>
</table>
<h2>Flag word <span id="word"></span></h2>
<table>
<tr><td>vidapp logs</td><td id="vidapp-logs">-</td></tr>
<tr><td>levels</td><td id="levels">-</td></tr>
<tr><td>applications</td><td id="applications">-</td></tr>
<tr><td>pending</td><td id="pending">-</td></tr>
<tr><td>profiler</td><td id="profiler">-</td></tr>
<tr><td>other bits</td><td id="other">-</td></tr>
</table>
<div id="controls">
<h2>Controls</h2>
<button data-post="/control/live-stream-start">Start live stream</button>
<button data-post="/control/hitch-ball-stop">Hitch-ball stop</button>
<div><label><input type="checkbox" data-what="vidapp"> vidapp logs (letter L)</label></div>
<div>Levels (every application):<br>
<label><input type="checkbox" data-what="error"> error</label><label><input type="checkbox" data-what="warning"> warning</label>
<label><input type="checkbox" data-what="info"> info</label><label><input type="checkbox" data-what="debug"> debug</label>
<label><input type="checkbox" data-what="verbose"> verbose</label><label><input type="checkbox" data-what="profile"> profile</label></div>
<div id="reply" class="pending"></div>
</div>
<h2>Counters</h2>
<div id="counters">-</div>
</div>
<script>
"use strict";
const $ = (id) => document.getElementById(id);
const put = (id, text, cls) => { $(id).textContent = text; $(id).className = cls || ""; };
const list = (items) => items.length ? items.join(" ") : "-";

function show(s) {
  const seg = s.segment;
  put("segment", seg.name + " slot " + seg.slot + ": " + seg.state + (seg.problem ? " (" + seg.problem + ")" : ""),
      seg.state === "frame" ? "" : "bad");
  const f = s.frame;
  put("sequence", f ? String(f.sequenceNumber) : "-");
  put("size", f ? f.width + " x " + f.height : "-");
  let stamp = "-";
  if (f) {
    stamp = String(f.timestamp);
    if (s.clockDivisor > 0) stamp += " (" + new Date(f.timestamp * s.clockDivisor / 1000).toISOString() + ")";
  }
  put("timestamp", stamp);
  put("age", f ? (f.ageMs === null ? "?" : f.ageMs + " ms") + ", seen " + f.seenMsAgo + " ms ago" : "-",
      f && f.seenMsAgo > 2000 ? "pending" : "");
  put("rate", s.frameRate.toFixed(1) + " frames/s");
  const w = s.flagWord;
  if (!w.attached) {
    put("word", "not attached", "bad");
  } else {
    put("word", "0x" + w.hex);
    put("vidapp-logs", w.vidappLogs.length ? w.vidappLogs.join(" ") : "nothing", w.vidappLogs.length ? "" : "pending");
    put("levels", list(w.levels));
    put("applications", list(w.applications));
    const pending = [];
    if (w.liveStreamStartPending) pending.push("live-stream start");
    if (w.hitchBallStopPending) pending.push("hitch-ball stop");
    for (const c of w.commands) {
      if (c !== "live-stream-start" && c !== "hitch-ball-stop" && !c.startsWith("profiler-")) pending.push(c);
    }
    put("pending", list(pending), pending.length ? "pending" : "");
    put("profiler", w.profiler.length ? w.profiler.map((p) => p + " pending").join(", ") : "no command pending");
    put("other", list(w.otherBits));
    for (const box of document.querySelectorAll("[data-what]")) {
      if (document.activeElement !== box) {
        box.checked = box.dataset.what === "vidapp" ? w.applications.includes("vidapp") : w.levels.includes(box.dataset.what);
      }
    }
  }
  $("controls").style.display = s.control && w.attached ? "block" : "none";
  const c = s.counters;
  put("counters", "frames seen " + c.framesSeen + ", taken " + c.framesTaken + ", copy retries " + c.copyRetries +
      ", JPEG encodes " + c.jpegEncodes + " (" + c.jpegEncodeMicrosecondsAverage + " µs each), streams " +
      c.streamsActive + " of " + c.streamLimit + ", re-attaches " + c.detaches);
}

async function poll() {
  try {
    const reply = await fetch("/status.json", {cache: "no-store"});
    show(await reply.json());
  } catch (e) {
    put("segment", "vidapp-view does not answer", "bad");
  }
  setTimeout(poll, 500);
}

async function post(url) {
  const reply = await fetch(url, {method: "POST"});
  const text = await reply.text();
  let message = text;
  try { message = JSON.parse(text).warning || ""; } catch (e) { message = reply.status + ": " + text; }
  put("reply", message, reply.ok ? "pending" : "bad");
}

for (const button of document.querySelectorAll("[data-post]")) button.onclick = () => post(button.dataset.post);
for (const box of document.querySelectorAll("[data-what]")) {
  box.onchange = () => post("/control/log?what=" + box.dataset.what + "&state=" + (box.checked ? "on" : "off"));
}
$("picture").onerror = () => setTimeout(() => { $("picture").src = ""; $("picture").src = "/stream.mjpg"; }, 1000);
poll();
</script>
</body>
</html>
)PAGE";

// ---- HTTP ----

bool equalsIgnoringCase(const std::string& a, const std::string& b) {
    return a.size() == b.size() && std::equal(a.begin(), a.end(), b.begin(), [](char x, char y) {
               return std::tolower(static_cast<unsigned char>(x)) == std::tolower(static_cast<unsigned char>(y));
           });
}

// A Host header naming this server by an IP address or localhost. Any other name may be a foreign
// site's name pointed at this machine, which would make that site's pages this server's own origin.
bool acceptableHost(const std::string& host) {
    std::string name = host;
    std::string port;
    if (!host.empty() && host.front() == '[') {
        const std::size_t close = host.find(']');
        if (close == std::string::npos) {
            return false;
        }
        name = host.substr(1, close - 1);
        if (close + 1 < host.size()) {
            if (host[close + 1] != ':') {
                return false;
            }
            port = host.substr(close + 2);
        }
        unsigned char address[16];
        if (inet_pton(AF_INET6, name.c_str(), address) != 1) {
            return false;
        }
    } else {
        const std::size_t colon = host.find(':');
        if (colon != std::string::npos) {
            name = host.substr(0, colon);
            port = host.substr(colon + 1);
        }
        unsigned char address[4];
        if (!equalsIgnoringCase(name, "localhost") && inet_pton(AF_INET, name.c_str(), address) != 1) {
            return false;
        }
    }
    return port.empty() || parseUnsigned(port, 1, 65535).has_value();
}

void reply(httplib::Response& response, int status, const std::string& text) {
    response.status = status;
    response.set_content(text + "\n", "text/plain; charset=utf-8");
}

// Only the parameters named may appear, each at most once.
bool onlyParameters(const httplib::Request& request, std::initializer_list<const char*> names, std::string& error) {
    for (const auto& [name, value] : request.params) {
        if (std::none_of(names.begin(), names.end(), [&](const char* allowed) { return name == allowed; })) {
            error = "unknown parameter '" + name + "'";
            return false;
        }
        if (request.get_param_value_count(name) > 1) {
            error = "parameter '" + name + "' given twice";
            return false;
        }
    }
    return true;
}

// onlyParameters, answering 400 when they are not.
bool parametersAllowed(const httplib::Request& request, httplib::Response& response,
                       std::initializer_list<const char*> names) {
    std::string error;
    if (!onlyParameters(request, names, error)) {
        reply(response, 400, error);
        return false;
    }
    return true;
}

// The JPEG variant a request asks for through quality and width.
bool jpegVariant(const httplib::Request& request, Variant& variant, std::string& error) {
    if (!onlyParameters(request, {"quality", "width"}, error)) {
        return false;
    }
    if (request.has_param("quality")) {
        const std::string text = request.get_param_value("quality");
        const std::optional<std::uint64_t> quality = parseUnsigned(text, 1, 100);
        if (!quality) {
            error = "quality takes 1..100, not '" + text + "'";
            return false;
        }
        variant.quality = static_cast<int>(*quality);
    }
    if (request.has_param("width")) {
        const std::string text = request.get_param_value("width");
        const std::optional<std::uint64_t> width = parseUnsigned(text, 1, MAX_WIDTH);
        if (!width) {
            error = "width takes 1.." + std::to_string(MAX_WIDTH) + ", not '" + text + "'";
            return false;
        }
        variant.width = static_cast<int>(*width);
    }
    return true;
}

class ViewServer {
public:
    ViewServer(const Options& givenOptions, FrameHub& frameHub, FlagWord& flagWord)
        : options(givenOptions), hub(frameHub), flags(flagWord) {
        setUp();
    }

    bool bind() { return server.bind_to_port(options.host, options.port); }
    void serve() { server.listen_after_bind(); }
    void stop() { server.stop(); }

private:
    void setUp();
    void snapshot(const httplib::Request& request, httplib::Response& response, Format format);
    void stream(const httplib::Request& request, httplib::Response& response);
    bool controlAllowed(const httplib::Request& request, httplib::Response& response);
    void apply(const httplib::Request& request, httplib::Response& response, const std::string& command);

    const Options& options;
    FrameHub& hub;
    FlagWord& flags;
    httplib::Server server;
};

void ViewServer::setUp() {
    server.new_task_queue = [] { return new httplib::ThreadPool(WORKERS); };
    // SO_REUSEADDR alone: a restart need not wait for old connections, but a second vidapp-view
    // on the same port fails instead of sharing it (the library's default adds SO_REUSEPORT).
    server.set_socket_options([](socket_t socket) {
        const int on = 1;
        (void)setsockopt(socket, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
    });
    server.set_keep_alive_timeout(2);
    server.set_read_timeout(5);
    // A viewer that takes no data for this long is let go; a slow one only gets fewer frames.
    server.set_write_timeout(3);
    server.set_default_headers({{"Cache-Control", "no-store"}, {"X-Content-Type-Options", "nosniff"}});
    server.set_pre_routing_handler([](const httplib::Request& request, httplib::Response& response) {
        if (!acceptableHost(request.get_header_value("Host"))) {
            reply(response, 403, "this server answers to its IP address or localhost only");
            return httplib::Server::HandlerResponse::Handled;
        }
        return httplib::Server::HandlerResponse::Unhandled;
    });
    server.set_error_handler([](const httplib::Request&, httplib::Response& response) {
        if (response.body.empty()) {
            reply(response, response.status, response.status == 404 ? "no such page" : "request refused");
        }
    });

    server.Get("/", [](const httplib::Request& request, httplib::Response& response) {
        if (!parametersAllowed(request, response, {})) {
            return;
        }
        // The page's script is its own; no other site may frame it (its buttons) or run script in it.
        response.set_header("Content-Security-Policy",
                            "default-src 'self'; script-src 'unsafe-inline'; style-src 'unsafe-inline'; "
                            "frame-ancestors 'none'");
        response.set_content(PAGE, "text/html; charset=utf-8");
    });
    server.Get("/status\\.json", [this](const httplib::Request& request, httplib::Response& response) {
        if (!parametersAllowed(request, response, {})) {
            return;
        }
        response.set_content(statusJson(hub.status(), flags, options.allowControl), "application/json");
    });
    server.Get("/snapshot\\.jpg", [this](const httplib::Request& request, httplib::Response& response) {
        snapshot(request, response, Format::Jpeg);
    });
    server.Get("/snapshot\\.png", [this](const httplib::Request& request, httplib::Response& response) {
        snapshot(request, response, Format::Png);
    });
    server.Get("/stream\\.mjpg",
               [this](const httplib::Request& request, httplib::Response& response) { stream(request, response); });
    // The commands are the command strings of vidapp-dlog: +) and +' .
    server.Post("/control/live-stream-start", [this](const httplib::Request& request, httplib::Response& response) {
        if (controlAllowed(request, response) && parametersAllowed(request, response, {})) {
            apply(request, response, "+)");
        }
    });
    server.Post("/control/hitch-ball-stop", [this](const httplib::Request& request, httplib::Response& response) {
        if (controlAllowed(request, response) && parametersAllowed(request, response, {})) {
            apply(request, response, "+'");
        }
    });
    server.Post("/control/log", [this](const httplib::Request& request, httplib::Response& response) {
        if (!controlAllowed(request, response) || !parametersAllowed(request, response, {"what", "state"})) {
            return;
        }
        const std::string what = request.get_param_value("what");
        const std::string state = request.get_param_value("state");
        char character = 0;
        if (what == "vidapp") {
            character = 'L';
        }
        for (std::size_t level = 0; level < logLevels().size(); ++level) {
            if (what == logLevels()[level].name) {
                character = static_cast<char>('1' + level);
            }
        }
        if (character == 0 || (state != "on" && state != "off")) {
            reply(response, 400, "takes what=vidapp|error|warning|info|debug|verbose|profile and state=on|off");
            return;
        }
        apply(request, response, std::string(state == "on" ? "+" : "-") + character);
    });
}

void ViewServer::snapshot(const httplib::Request& request, httplib::Response& response, Format format) {
    Variant variant;
    variant.format = format;
    std::string error;
    const bool valid =
        format == Format::Png ? onlyParameters(request, {}, error) : jpegVariant(request, variant, error);
    if (!valid) {
        reply(response, 400, error);
        return;
    }
    if (format == Format::Png) {
        variant.quality = 0; // one PNG variant, whatever the JPEG default
    }
    const std::optional<Picture> picture = hub.snapshot(variant, error);
    if (!picture || !picture->bytes) {
        response.set_header("Retry-After", "1");
        reply(response, 503, picture ? "the frame could not be encoded" : error);
        return;
    }
    const auto& bytes = *picture->bytes;
    response.set_content(reinterpret_cast<const char*>(bytes.data()), bytes.size(),
                         format == Format::Png ? "image/png" : "image/jpeg");
}

// Each part is the latest picture when the viewer is ready for one: a slow viewer skips frames,
// and as the pictures are shared, nobody else waits for it.
void ViewServer::stream(const httplib::Request& request, httplib::Response& response) {
    Variant variant;
    std::string error;
    if (!jpegVariant(request, variant, error)) {
        reply(response, 400, error);
        return;
    }
    if (!hub.addStream(variant)) {
        response.set_header("Retry-After", "5");
        reply(response, 503, "already " + std::to_string(MAX_STREAMS) + " streams running");
        return;
    }
    auto sent = std::make_shared<std::uint64_t>(0); // generation of the last picture sent
    response.set_content_provider(
        std::string("multipart/x-mixed-replace; boundary=") + BOUNDARY,
        [this, variant, sent](std::size_t, httplib::DataSink& sink) {
            Picture picture;
            switch (hub.nextPicture(variant, *sent, picture, 1s)) {
            case FrameHub::Wait::Stopping:
                return false;
            case FrameHub::Wait::Nothing:
                return sink.is_writable();
            case FrameHub::Wait::Picture:
                break;
            }
            const std::string head = std::string("--") + BOUNDARY + "\r\nContent-Type: image/jpeg\r\nContent-Length: " +
                                     std::to_string(picture.bytes->size()) + "\r\n\r\n";
            *sent = picture.generation;
            return sink.write(head.data(), head.size()) &&
                   sink.write(reinterpret_cast<const char*>(picture.bytes->data()), picture.bytes->size()) &&
                   sink.write("\r\n", 2);
        },
        [this, variant](bool) { hub.removeStream(variant); });
}

// A page from another site may send POST requests here too; the browser names their origin, and
// only the origin of this server (as the request names it) is obeyed.
bool ViewServer::controlAllowed(const httplib::Request& request, httplib::Response& response) {
    if (!options.allowControl) {
        reply(response, 403, "the controls are off: start vidapp-view with --allow-control");
        return false;
    }
    const std::string origin = request.get_header_value("Origin");
    const std::string host = request.get_header_value("Host");
    if (origin.empty() || host.empty() || !equalsIgnoringCase(origin, "http://" + host)) {
        reply(response, 403, "only this server's own pages may use the controls (Origin '" + origin + "')");
        return false;
    }
    if (!flags.isAttached()) {
        reply(response, 503, "the debug flag word is not attached");
        return false;
    }
    return true;
}

void ViewServer::apply(const httplib::Request& request, httplib::Response& response, const std::string& command) {
    const std::string warning = flags.apply(command);
    char hex[32];
    std::snprintf(hex, sizeof hex, "%llx", static_cast<unsigned long long>(flags.read()));
    std::fprintf(stderr, "vidapp-view: %s applied for %s: flag word now 0x%s\n", command.c_str(),
                 request.remote_addr.c_str(), hex);
    response.set_content("{\"applied\":" + jsonString(command) + ",\"word\":" + jsonString(hex) +
                             ",\"warning\":" + jsonString(warning) + "}",
                         "application/json");
}

std::string displayAddress(const Options& options) {
    const bool v6 = options.host.find(':') != std::string::npos;
    return std::string("http://") + (v6 ? "[" : "") + options.host + (v6 ? "]" : "") + ":" +
           std::to_string(options.port) + "/";
}

int serve(const Options& options, const StopSignals& stopSignals) {
    // The debug flag word of the system, attached as vidapp-dlog attaches it. Without it the page
    // shows no word and the controls answer 503.
    const bool attached = initDLogInterface() == 1;
    if (!attached) {
        useOwnDebugWord();
        std::fprintf(stderr, "vidapp-view: the debug flag word (System V key 0x%x) cannot be attached\n",
                     DLOG_SHARED_MEMORY_KEY);
    }
    FlagWord flags(attached);
    FrameHub hub(attached);
    ViewServer server(options, hub, flags);
    if (!server.bind()) {
        std::fprintf(stderr, "vidapp-view: cannot listen on %s (in use, or not an address of this machine)\n",
                     displayAddress(options).c_str());
        return EXIT_FAILED;
    }
    hub.poll(); // the first request already finds the segment's state
    std::thread encoder([&hub] { hub.run(); });
    std::thread listener([&server] { server.serve(); });
    std::fprintf(stderr, "vidapp-view: serving %s (controls %s)\n", displayAddress(options).c_str(),
                 options.allowControl ? "on" : "off");
    stopSignals.wait(-1, std::nullopt);
    std::fprintf(stderr, "vidapp-view: stopping\n");
    hub.stop();
    server.stop();
    listener.join();
    encoder.join();
    return EXIT_OK;
}

} // namespace

int main(int argc, char** argv) {
    Options options;
    if (const std::optional<int> status =
            startTool("vidapp-view", USAGE, argc, argv, options, parseOptions, printToolHelp)) {
        return *status;
    }
    // A viewer that goes away mid-reply must cost a failed write, not the process.
    std::signal(SIGPIPE, SIG_IGN);
    const StopSignals stopSignals; // before any thread starts
    if (!stopSignals.ready()) {
        std::perror("vidapp-view: cannot set up the stop signals");
        return EXIT_FAILED;
    }
    return serve(options, stopSignals);
}
