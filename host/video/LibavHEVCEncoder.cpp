#include "host/video/LibavHEVCEncoder.hpp"

#include <algorithm>
#include <condition_variable>
#include <deque>
#include <mutex>
#include <optional>
#include <ranges>
#include <stdexcept>

#include "kit/media/CaptureClock.hpp"
#include "kit/media/CodecProfileNames.hpp"
#include "kit/media/HEVCBitstream.hpp"
#include "kit/log/Logger.hpp"

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavutil/error.h>
#include <libavutil/intreadwrite.h>
#include <libavutil/opt.h>
#include <libavutil/pixdesc.h>
#include <libswscale/swscale.h>
}

namespace kelvaron::host {

namespace {

constexpr int kExpectedFrameRate = 60;
// Key frames come when asked for, and at the latest after 7200 frames or two minutes.
constexpr int kMaxKeyFrameInterval = 7200;
constexpr std::uint64_t kMaxKeyFrameIntervalNs = 120'000'000'000;
// The least time from a key frame to one that only a new rate brings.
constexpr std::uint64_t kRateChangeSpacingNs = 1'000'000'000;
constexpr int kHighQualityQP = 20;  // the quantiser limit of the idle refresh
constexpr int kLargestQPOffset = 25;

std::string avError(int code) {
  char text[AV_ERROR_MAX_STRING_SIZE] = {};
  av_strerror(code, text, sizeof text);
  return text;
}

// What the stream must say of itself for each profile.
hevc::StreamFormat expectedFormat(CodecProfile profile) {
  switch (profile) {
    case CodecProfile::hevcMain:
      return {1, 1, 8};
    case CodecProfile::hevcMain10:
      return {2, 1, 10};
    case CodecProfile::hevcMain444:
      return {4, 3, 8};
    case CodecProfile::hevcMain44410:
      return {4, 3, 10};
  }
  return {};
}

// What the conversion makes of BGRA, for every size, and what the stream must say.
constexpr hevc::ColourDescription kConvertedColour{1, 1, 1, false};

// The stream's sequence parameter set: the last, if there are several; empty if there is none.
hevc::NALUnit spsOf(const std::vector<hevc::NALUnit>& units) {
  const auto sps = std::ranges::find(units | std::views::reverse, hevc::kSPS,
                                     [](hevc::NALUnit unit) { return hevc::nalType(unit); });
  return sps == units.rend() ? hevc::NALUnit{} : *sps;
}

// The layouts we can fill from BGRA for each profile, in order of preference.
std::vector<AVPixelFormat> pixelFormatsFor(CodecProfile profile) {
  switch (profile) {
    case CodecProfile::hevcMain:
      return {AV_PIX_FMT_YUV420P, AV_PIX_FMT_NV12};
    case CodecProfile::hevcMain10:
      return {AV_PIX_FMT_YUV420P10};
    case CodecProfile::hevcMain444:
      return {AV_PIX_FMT_YUV444P};
    case CodecProfile::hevcMain44410:
      return {AV_PIX_FMT_YUV444P10};
  }
  return {};
}

std::optional<AVPixelFormat> pixelFormatFor(const AVCodec& codec, CodecProfile profile) {
  for (AVPixelFormat wanted : pixelFormatsFor(profile)) {
    if (!codec.pix_fmts) return wanted;
    for (const AVPixelFormat* f = codec.pix_fmts; *f != AV_PIX_FMT_NONE; ++f) {
      if (*f == wanted) return wanted;
    }
  }
  return std::nullopt;
}

struct PacketDeleter {
  void operator()(AVPacket* p) const { av_packet_free(&p); }
};
using PacketPtr = std::unique_ptr<AVPacket, PacketDeleter>;

struct FrameDeleter {
  void operator()(AVFrame* f) const { av_frame_free(&f); }
};
using FramePtr = std::unique_ptr<AVFrame, FrameDeleter>;

struct ContextDeleter {
  void operator()(AVCodecContext* c) const { avcodec_free_context(&c); }
};
using ContextPtr = std::unique_ptr<AVCodecContext, ContextDeleter>;

struct ConverterDeleter {
  void operator()(SwsContext* c) const { sws_freeContext(c); }
};
using ConverterPtr = std::unique_ptr<SwsContext, ConverterDeleter>;

// BGRA, full range as a screen has it, into `format` with the BT.709 matrix in limited range:
// libyuv converts from RGB with BT.601 only.
ConverterPtr makeConverter(AVPixelFormat format, int width, int height) {
  ConverterPtr converter(sws_getContext(width, height, AV_PIX_FMT_BGRA, width, height, format,
                                        SWS_BILINEAR, nullptr, nullptr, nullptr));
  const int* bt709 = sws_getCoefficients(SWS_CS_ITU709);
  if (!converter ||
      sws_setColorspaceDetails(converter.get(), bt709, 1, bt709, 0, 0, 1 << 16, 1 << 16) < 0) {
    throw std::runtime_error("libswscale cannot convert BGRA to " +
                             std::string(av_get_pix_fmt_name(format)));
  }
  return converter;
}

FramePtr allocatePicture(AVPixelFormat format, int width, int height) {
  FramePtr frame(av_frame_alloc());
  if (!frame) throw std::runtime_error("out of memory");
  frame->format = format;
  frame->width = width;
  frame->height = height;
  const int status = av_frame_get_buffer(frame.get(), 0);
  if (status < 0) throw std::runtime_error("av_frame_get_buffer " + avError(status));
  return frame;
}

// The QP of an encoded picture, as the encoder reports it; 0 when it does not.
int packetQP(const AVPacket& packet) {
  std::size_t size = 0;
  const std::uint8_t* stats = av_packet_get_side_data(&packet, AV_PKT_DATA_QUALITY_STATS, &size);
  if (!stats || size < 4) return 0;
  return int(AV_RL32(stats) / FF_QP2LAMBDA);
}

struct Job {
  CapturedFrame frame;
  bool forceKeyframe = false;
  bool highQuality = false;
};

// A frame handed to the codec, until its packet comes back.
struct Pending {
  std::uint64_t pts = 0;
  std::uint64_t number = 0;
  Job job;
};

}  // namespace

LibavBackend LibavBackend::libx265() {
  return {
      "libx265",
      {{"preset", "ultrafast"},
       {"tune", "zerolatency"},
       {"forced-idr", "1"},
       // Quantiser offsets (the idle refresh) are ignored unless adaptive quantisation runs;
       // at this strength it barely moves anything else.
       {"x265-params", "log-level=error:info=0:aq-mode=1:aq-strength=0.1:scenecut=0:open-gop=0"}}};
}

std::vector<LibavBackend> LibavBackend::hardware() {
  return {{"hevc_nvenc",
           {{"preset", "p1"},
            {"tune", "ull"},
            {"zerolatency", "1"},
            {"forced-idr", "1"},
            {"delay", "0"}}},
          {"hevc_qsv", {{"preset", "veryfast"}, {"async_depth", "1"}, {"forced_idr", "1"}}}};
}

namespace {

// One opened codec context for one size, profile and rate.
class Session {
 public:
  struct Output {
    Pending frame;
    PacketPtr packet;
  };

  // Throws with a text for a person.
  Session(const LibavBackend& backend, CodecProfile codecProfile, int pictureWidth,
          int pictureHeight, std::int64_t bitsPerSecond)
      : profile(codecProfile), width(pictureWidth), height(pictureHeight), bitrate(bitsPerSecond) {
    const AVCodec* codec = avcodec_find_encoder_by_name(backend.codecName.c_str());
    if (!codec) throw std::runtime_error("avcodec_find_encoder_by_name " + backend.codecName);
    const auto format = pixelFormatFor(*codec, profile);
    if (!format) {
      throw std::runtime_error(std::string("ProfileLevel ") + profileCaseName(profile) +
                               " rejected: " + backend.codecName + " has no pixel format for it");
    }
    context_.reset(avcodec_alloc_context3(codec));
    if (!context_) throw std::runtime_error("out of memory");
    configure(*context_, *format);
    AVDictionary* options = nullptr;
    for (const auto& [key, value] : backend.options) {
      av_dict_set(&options, key.c_str(), value.c_str(), 0);
    }
    const int status = avcodec_open2(context_.get(), codec, &options);
    av_dict_free(&options);
    if (status < 0) throw std::runtime_error("avcodec_open2 " + avError(status));
    picture_ = allocatePicture(*format, width, height);
    converter_ = makeConverter(*format, width, height);
  }

  // Encodes one picture; what the codec hands back comes out in order. `qpOffset` lowers the
  // quantiser of the whole picture. Throws with a text for a person.
  std::vector<Output> encode(Pending frame, bool keyframe, int qpOffset) {
    const PixelBuffer& source = *frame.job.frame.pixelBuffer;
    int status = av_frame_make_writable(picture_.get());
    if (status < 0) throw std::runtime_error("av_frame_make_writable " + avError(status));
    fill(source);
    picture_->pts = std::int64_t(frame.pts);
    picture_->pict_type = keyframe ? AV_PICTURE_TYPE_I : AV_PICTURE_TYPE_NONE;
    setQPOffset(qpOffset);
    status = avcodec_send_frame(context_.get(), picture_.get());
    if (status < 0) throw std::runtime_error("avcodec_send_frame " + avError(status));
    pending_.push_back(std::move(frame));

    std::vector<Output> outputs;
    for (;;) {
      PacketPtr packet(av_packet_alloc());
      status = avcodec_receive_packet(context_.get(), packet.get());
      if (status == AVERROR(EAGAIN) || status == AVERROR_EOF) break;
      if (status < 0) throw std::runtime_error("avcodec_receive_packet " + avError(status));
      // Without reordering, packets come in the order of their pictures.
      while (!pending_.empty() && pending_.front().pts < std::uint64_t(packet->pts)) {
        pending_.pop_front();
      }
      if (pending_.empty()) continue;
      outputs.push_back({std::move(pending_.front()), std::move(packet)});
      pending_.pop_front();
    }
    return outputs;
  }

  const CodecProfile profile;
  const int width;
  const int height;
  const std::int64_t bitrate;

 private:
  void configure(AVCodecContext& c, AVPixelFormat format) const {
    c.width = width;
    c.height = height;
    c.pix_fmt = format;
    c.time_base = AVRational{1, 1000000000};  // time stamps are capture nanoseconds
    c.framerate = AVRational{kExpectedFrameRate, 1};
    c.gop_size = kMaxKeyFrameInterval;
    c.max_b_frames = 0;  // decode order is display order
    c.bit_rate = bitrate;
    c.rc_max_rate = bitrate;
    c.rc_buffer_size = int(std::min<std::int64_t>(bitrate / 2, INT32_MAX));
    // BT.709 in limited range for every size, as the conversion makes it; the decoder learns it
    // from the stream.
    c.color_primaries = AVCOL_PRI_BT709;
    c.color_trc = AVCOL_TRC_BT709;
    c.colorspace = AVCOL_SPC_BT709;
    c.color_range = AVCOL_RANGE_MPEG;
  }

  // The session is opened for the size of the pictures it takes.
  void fill(const PixelBuffer& source) {
    const std::uint8_t* const planes[] = {source.bytes.data()};
    const int strides[] = {source.stride};
    sws_scale(converter_.get(), planes, strides, 0, height, picture_->data, picture_->linesize);
  }

  // Every picture carries the offset, zero mostly: libx265 sizes the offsets of its pooled
  // pictures by the first that carried any, and one that never did cannot take them later.
  void setQPOffset(int qpOffset) {
    if (!av_frame_get_side_data(picture_.get(), AV_FRAME_DATA_REGIONS_OF_INTEREST) &&
        !av_frame_new_side_data(picture_.get(), AV_FRAME_DATA_REGIONS_OF_INTEREST,
                                sizeof(AVRegionOfInterest))) {
      return;
    }
    auto* region = reinterpret_cast<AVRegionOfInterest*>(
        av_frame_get_side_data(picture_.get(), AV_FRAME_DATA_REGIONS_OF_INTEREST)->data);
    *region = AVRegionOfInterest{};
    region->self_size = sizeof(AVRegionOfInterest);
    region->right = width;
    region->bottom = height;
    // libavcodec hands libx265 the fraction times 25, its largest offset.
    region->qoffset =
        AVRational{std::clamp(qpOffset, -kLargestQPOffset, kLargestQPOffset), kLargestQPOffset};
  }

  ContextPtr context_;
  FramePtr picture_;
  ConverterPtr converter_;
  std::deque<Pending> pending_;
};

}  // namespace

class LibavHEVCEncoder::Core {
 public:
  Core(LibavBackend backend, CodecProfile profile, std::int64_t bitsPerSecond,
       EncoderOutputHandler output)
      : backend_(std::move(backend)),
        output_(std::move(output)),
        bitrate_(bitsPerSecond),
        activeProfile_(profile) {}

  // From any thread.
  void encode(const CapturedFrame& frame, bool forceKeyframe, bool highQuality);
  void requestKeyframe();
  void setBitrate(std::int64_t bitsPerSecond);
  void stop();

  // The encoding thread: frames until `stop`.
  void run();

 private:
  void process(const Job& job);
  bool ensureSession(int width, int height, bool rateMayChange);
  void deliver(const Pending& frame, std::span<const std::uint8_t> bytes, bool keyframe);
  bool verify(const Job& job, std::span<const std::uint8_t> packet);
  void fallBack(const Job& job, CodecProfile from);
  void emit(EncoderOutput output);
  bool takeForceNext();
  std::int64_t currentBitrate();

  const LibavBackend backend_;
  const EncoderOutputHandler output_;
  Logger log_{"io.dovka.tovu.host", "encoder"};

  // Shared with the callers' threads.
  std::mutex lock_;
  std::condition_variable wake_;
  std::optional<Job> pending_;
  bool stopped_ = false;
  bool forceNext_ = true;
  std::int64_t bitrate_;

  // The encoding thread's own.
  CodecProfile activeProfile_;
  std::unique_ptr<Session> session_;
  std::optional<std::string> sessionError_;
  bool verified_ = false;
  std::uint64_t frameNumber_ = 0;
  std::uint64_t lastPTS_ = 0;
  std::uint64_t lastKeyframePTS_ = 0;
  int lastQP_ = 0;
};

LibavHEVCEncoder::LibavHEVCEncoder(LibavBackend backend, CodecProfile profile,
                                   std::int64_t bitsPerSecond, EncoderOutputHandler output)
    : core_(std::make_shared<Core>(std::move(backend), profile, bitsPerSecond, std::move(output))),
      worker_([core = core_] { core->run(); }) {}

LibavHEVCEncoder::~LibavHEVCEncoder() {
  stop();
  // Only when the encoding thread itself let go last: it finishes on the core, which it holds.
  if (worker_.joinable()) worker_.detach();
}

void LibavHEVCEncoder::encode(const CapturedFrame& frame, bool forceKeyframe, bool highQuality) {
  core_->encode(frame, forceKeyframe, highQuality);
}

void LibavHEVCEncoder::requestKeyframe() { core_->requestKeyframe(); }

void LibavHEVCEncoder::setBitrate(std::int64_t bitsPerSecond) { core_->setBitrate(bitsPerSecond); }

void LibavHEVCEncoder::stop() {
  core_->stop();
  if (worker_.joinable() && worker_.get_id() != std::this_thread::get_id()) worker_.join();
}

void LibavHEVCEncoder::Core::encode(const CapturedFrame& frame, bool forceKeyframe,
                                    bool highQuality) {
  if (!frame.pixelBuffer) return;
  {
    std::lock_guard guard(lock_);
    if (stopped_) return;
    // A frame still waiting was never encoded, so replacing it leaves no gap; its key-frame
    // request carries over.
    const bool carriedKey = pending_ && pending_->forceKeyframe;
    pending_ = Job{frame, forceKeyframe || carriedKey, highQuality};
  }
  wake_.notify_one();
}

void LibavHEVCEncoder::Core::requestKeyframe() {
  std::lock_guard guard(lock_);
  forceNext_ = true;
}

void LibavHEVCEncoder::Core::setBitrate(std::int64_t bitsPerSecond) {
  std::lock_guard guard(lock_);
  bitrate_ = bitsPerSecond;
}

void LibavHEVCEncoder::Core::stop() {
  {
    std::lock_guard guard(lock_);
    stopped_ = true;
    pending_.reset();
  }
  wake_.notify_one();
}

void LibavHEVCEncoder::Core::run() {
  for (;;) {
    Job job;
    {
      std::unique_lock guard(lock_);
      wake_.wait(guard, [this] { return stopped_ || pending_; });
      if (stopped_) break;
      job = std::move(*pending_);
      pending_.reset();
    }
    process(job);
  }
  session_.reset();
}

bool LibavHEVCEncoder::Core::takeForceNext() {
  std::lock_guard guard(lock_);
  return std::exchange(forceNext_, false);
}

std::int64_t LibavHEVCEncoder::Core::currentBitrate() {
  std::lock_guard guard(lock_);
  return bitrate_;
}

void LibavHEVCEncoder::Core::process(const Job& job) {
  const PixelBuffer& picture = *job.frame.pixelBuffer;
  const std::uint64_t time = job.highQuality ? monotonicRawNs() : job.frame.captureTimeNs;
  const std::uint64_t pts =
      std::max(time, lastPTS_ + 1);  // the encoder wants strictly rising stamps
  // The libx265 limit counts frames, and a desktop at rest sends few: time is counted here.
  const std::uint64_t sinceKeyframe = pts - lastKeyframePTS_;
  const bool overdue = sinceKeyframe >= kMaxKeyFrameIntervalNs;
  bool keyframeDue;
  {
    std::lock_guard guard(lock_);
    keyframeDue = forceNext_ || job.forceKeyframe || overdue;
  }
  // A new rate takes a new codec session, which opens with a key frame: it comes with a key frame
  // due anyway, or a second after the last one, so that rate changes cannot bring a storm of them.
  const bool rateMayChange = keyframeDue || sinceKeyframe >= kRateChangeSpacingNs;
  if (!ensureSession(picture.width, picture.height, rateMayChange)) {
    emit(encoderOutput::failed{sessionError_.value_or("encoder session unavailable")});
    return;
  }
  const bool keyframe = takeForceNext() || job.forceKeyframe || overdue;
  const std::uint64_t number = ++frameNumber_;
  lastPTS_ = pts;
  const int qpOffset = job.highQuality && lastQP_ > kHighQualityQP ? kHighQualityQP - lastQP_ : 0;

  std::vector<Session::Output> outputs;
  try {
    outputs = session_->encode({lastPTS_, number, job}, keyframe, qpOffset);
  } catch (const std::exception& e) {
    emit(encoderOutput::failed{e.what()});
    return;
  }
  for (auto& output : outputs) {
    if (!session_) return;  // a fallback replaced the session: what is left belongs to the old one
    lastQP_ = packetQP(*output.packet);
    const std::span<const std::uint8_t> bytes(output.packet->data,
                                              std::size_t(output.packet->size));
    if (!verified_ && !verify(output.frame.job, bytes)) return;
    const bool key = output.packet->flags & AV_PKT_FLAG_KEY;
    if (key) lastKeyframePTS_ = output.frame.pts;
    deliver(output.frame, bytes, key);
  }
}

bool LibavHEVCEncoder::Core::ensureSession(int width, int height, bool rateMayChange) {
  const std::int64_t bitrate = currentBitrate();
  if (session_ && session_->width == width && session_->height == height &&
      !(rateMayChange && session_->bitrate != bitrate)) {
    return true;
  }
  session_.reset();
  verified_ = false;
  {
    std::lock_guard guard(lock_);
    forceNext_ = true;  // every session starts with a key frame
  }
  try {
    session_ = std::make_unique<Session>(backend_, activeProfile_, width, height, bitrate);
    sessionError_.reset();
    return true;
  } catch (const std::exception& e) {
    sessionError_ = e.what();
    return false;
  }
}

bool matchesProfile(const std::vector<hevc::NALUnit>& units, CodecProfile profile) {
  return hevc::readStreamFormat(spsOf(units)) == expectedFormat(profile);
}

bool LibavHEVCEncoder::Core::verify(const Job& job, std::span<const std::uint8_t> packet) {
  const CodecProfile profile = session_->profile;
  const auto units = hevc::splitAnnexB(packet);
  if (!matchesProfile(units, profile)) {
    fallBack(job, profile);
    return false;
  }
  verified_ = true;
  log_.debug("encoder verified profile %s %ux%u", profileLabel(profile), unsigned(session_->width),
            unsigned(session_->height));
  // Clients would show the colours shifted; that is worth a line, not the encoder.
  if (hevc::readColourDescription(spsOf(units)) != kConvertedColour) {
    log_.error("encoder %s does not state the BT.709 colours it is given",
               backend_.codecName.c_str());
  }
  return true;
}

void LibavHEVCEncoder::Core::fallBack(const Job& job, CodecProfile from) {
  if (from == CodecProfile::hevcMain || from != activeProfile_) {
    emit(encoderOutput::failed{std::string("encoder produced a stream that does not match ") +
                               profileCaseName(from)});
    return;
  }
  // Straight to the one profile every decoder has, in one step.
  activeProfile_ = CodecProfile::hevcMain;
  session_.reset();
  emit(encoderOutput::profileFallback{from, CodecProfile::hevcMain});
  process(Job{job.frame, true, false});
}

void LibavHEVCEncoder::Core::deliver(const Pending& frame, std::span<const std::uint8_t> bytes,
                                     bool keyframe) {
  std::vector<SharedBytes> parameterSets;
  std::vector<hevc::NALUnit> picture;
  for (hevc::NALUnit unit : hevc::splitAnnexB(bytes)) {
    const auto type = hevc::nalType(unit);
    if (type && hevc::isParameterSet(*type)) {
      if (keyframe) parameterSets.emplace_back(Data(unit.begin(), unit.end()));
    } else {
      picture.push_back(unit);
    }
  }
  if (picture.empty()) return;
  const CapturedFrame& captured = frame.job.frame;
  VideoFrame video{.displayID = captured.displayID,
                   .frameNumber = frame.number,
                   .captureTimeNs = captured.captureTimeNs,
                   .isKeyframe = keyframe,
                   .profile = session_->profile,
                   .width = std::uint32_t(session_->width),
                   .height = std::uint32_t(session_->height),
                   .sourceRect = captured.sourceRect,
                   .parameterSets = std::move(parameterSets),
                   .payload = hevc::lengthPrefixed(picture)};
  const double latencyMs = double(monotonicRawNs() - captured.captureTimeNs) / 1e6;
  emit(encoderOutput::frame{std::move(video), latencyMs});
}

void LibavHEVCEncoder::Core::emit(EncoderOutput output) {
  {
    std::lock_guard guard(lock_);
    if (stopped_) return;
  }
  output_(std::move(output));
}

}  // namespace kelvaron::host
