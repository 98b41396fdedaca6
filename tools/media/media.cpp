// The FFmpeg wrapper of the tools: encoders and muxers per extension, frame conversion with
// libswscale, decoding, and packet-level summaries.
#include "media.h"

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavformat/avformat.h>
#include <libavutil/imgutils.h>
#include <libavutil/opt.h>
#include <libavutil/parseutils.h>
#include <libswscale/swscale.h>
}

#include <algorithm>
#include <array>
#include <cctype>
#include <cinttypes>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <limits>
#include <mutex>

namespace oxmedia {

namespace {

constexpr AVRational kMicroseconds = {1, 1000000};
// What an export writes into the "comment" tag, the one tag that MP4, Matroska and AVI all keep.
constexpr const char* kCommentPrefix = "libvideoinput recording: origin=";

std::string avError(int pCode) {
  char text[AV_ERROR_MAX_STRING_SIZE] = {};
  av_strerror(pCode, text, sizeof(text));
  return text;
}

std::string lower(std::string pText) {
  std::transform(pText.begin(), pText.end(), pText.begin(),
                 [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
  return pText;
}

std::string extensionOf(const std::string& pPath) {
  const size_t slash = pPath.find_last_of('/');
  const size_t dot = pPath.find_last_of('.');
  if (dot == std::string::npos || (slash != std::string::npos && dot < slash)) return "";
  return lower(pPath.substr(dot));
}

// "2023-11-14T22:13:20.123456Z" for a time in microseconds since 1970.
std::string isoTime(int64_t pMicroseconds) {
  const std::time_t seconds = static_cast<std::time_t>(pMicroseconds / 1000000);
  std::tm parts = {};
  gmtime_r(&seconds, &parts);
  char text[64];
  std::snprintf(text, sizeof(text), "%04d-%02d-%02dT%02d:%02d:%02d.%06dZ", parts.tm_year + 1900,
                parts.tm_mon + 1, parts.tm_mday, parts.tm_hour, parts.tm_min, parts.tm_sec,
                static_cast<int>(pMicroseconds % 1000000));
  return text;
}

// Origin and camera from a file's tags: ours first, then the creation time.
void readTags(const AVDictionary* pTags, int64_t& pOrigin, int& pCamera) {
  pOrigin = 0;
  pCamera = 0;
  const AVDictionaryEntry* comment = av_dict_get(pTags, "comment", nullptr, 0);
  if (comment != nullptr &&
      std::strncmp(comment->value, kCommentPrefix, std::strlen(kCommentPrefix)) == 0) {
    long long origin = 0;
    int camera = 0;
    const int found = std::sscanf(comment->value + std::strlen(kCommentPrefix), "%lld camera=%d",
                                  &origin, &camera);
    if (found >= 1) pOrigin = origin;
    if (found == 2) pCamera = camera;
    if (found >= 1) return;
  }
  const AVDictionaryEntry* created = av_dict_get(pTags, "creation_time", nullptr, 0);
  int64_t time = 0;
  if (created != nullptr && av_parse_time(&time, created->value, 0) == 0) pOrigin = time;
}

AVPixelFormat pixelFormatOf(Layout pLayout) {
  switch (pLayout) {
    case Layout::kYUYV:
      return AV_PIX_FMT_YUYV422;
    case Layout::kRGB:
      return AV_PIX_FMT_RGB24;
    case Layout::kBGR:
      return AV_PIX_FMT_BGR24;
    case Layout::kYUV:
    case Layout::kLuma:
      return AV_PIX_FMT_YUV444P;  // repacked into planes first
    case Layout::kYYCbCr:
      return AV_PIX_FMT_YUV422P;
  }
  return AV_PIX_FMT_NONE;
}

bool isFullRange(AVPixelFormat pFormat) {
  return pFormat == AV_PIX_FMT_YUVJ420P || pFormat == AV_PIX_FMT_YUVJ422P ||
         pFormat == AV_PIX_FMT_YUVJ444P;
}

// Sets the BT.601 matrix on both sides (or pSourceMatrix on the source side) and the ranges.
void setColours(SwsContext* pContext, int pSourceMatrix, bool pSourceFull, bool pTargetFull) {
  sws_setColorspaceDetails(pContext, sws_getCoefficients(pSourceMatrix), pSourceFull ? 1 : 0,
                           sws_getCoefficients(SWS_CS_ITU601), pTargetFull ? 1 : 0, 0, 1 << 16,
                           1 << 16);
}

// A libswscale context for one conversion, made anew when the conversion changes. The ranges are
// set before initialisation, so that libswscale picks a conversion path that honours them.
class Scaler {
 public:
  Scaler() = default;
  ~Scaler() { sws_freeContext(fContext); }
  Scaler(const Scaler&) = delete;
  Scaler& operator=(const Scaler&) = delete;

  SwsContext* get(int pSourceWidth, int pSourceHeight, AVPixelFormat pSource, int pSourceMatrix,
                  bool pSourceFull, int pWidth, int pHeight, AVPixelFormat pTarget,
                  bool pTargetFull) {
    const std::array<int, 9> key = {pSourceWidth,  pSourceHeight, pSource,
                                    pSourceMatrix, pSourceFull,   pWidth,
                                    pHeight,       pTarget,       pTargetFull};
    if (fContext != nullptr && key == fKey) return fContext;
    reset();
    SwsContext* context = sws_alloc_context();
    if (context == nullptr) return nullptr;
    av_opt_set_int(context, "srcw", pSourceWidth, 0);
    av_opt_set_int(context, "srch", pSourceHeight, 0);
    av_opt_set_int(context, "src_format", pSource, 0);
    av_opt_set_int(context, "dstw", pWidth, 0);
    av_opt_set_int(context, "dsth", pHeight, 0);
    av_opt_set_int(context, "dst_format", pTarget, 0);
    av_opt_set_int(context, "sws_flags", SWS_BICUBIC, 0);
    av_opt_set_int(context, "src_range", pSourceFull ? 1 : 0, 0);
    av_opt_set_int(context, "dst_range", pTargetFull ? 1 : 0, 0);
    if (sws_init_context(context, nullptr, nullptr) < 0) {
      sws_freeContext(context);
      return nullptr;
    }
    setColours(context, pSourceMatrix, pSourceFull, pTargetFull);
    fContext = context;
    fKey = key;
    return fContext;
  }
  void reset() {
    sws_freeContext(fContext);
    fContext = nullptr;
  }

 private:
  SwsContext* fContext = nullptr;
  std::array<int, 9> fKey = {};
};

struct FrameDeleter {
  void operator()(AVFrame* pFrame) const { av_frame_free(&pFrame); }
};
using FramePtr = std::unique_ptr<AVFrame, FrameDeleter>;

FramePtr makeFrame(AVPixelFormat pFormat, int pWidth, int pHeight) {
  FramePtr frame(av_frame_alloc());
  if (!frame) throw MediaError("out of memory for a frame");
  frame->format = pFormat;
  frame->width = pWidth;
  frame->height = pHeight;
  const int result = av_frame_get_buffer(frame.get(), 0);
  if (result < 0) throw MediaError("cannot allocate a frame: " + avError(result));
  return frame;
}

}  // namespace

size_t frameBytes(Layout pLayout, int pWidth, int pHeight) {
  const size_t pixels = static_cast<size_t>(pWidth) * static_cast<size_t>(pHeight);
  switch (pLayout) {
    case Layout::kYUYV:
    case Layout::kYYCbCr:
      return pixels * 2;
    case Layout::kLuma:
      return pixels;
    default:
      return pixels * 3;
  }
}

bool hasEncoder(const std::string& pName) {
  return avcodec_find_encoder_by_name(pName.c_str()) != nullptr;
}

namespace {

std::once_flag gQuietOnce;

// FFmpeg's messages stay off unless asked for: failures reach the user through MediaError.
void quietByDefault() {
  std::call_once(gQuietOnce, [] { av_log_set_level(AV_LOG_QUIET); });
}

}  // namespace

void showLibraryMessages(bool pShow) {
  quietByDefault();
  av_log_set_level(pShow ? AV_LOG_INFO : AV_LOG_QUIET);
}

OutputFormat outputFormatFor(const std::string& pPath) {
  const std::string extension = extensionOf(pPath);
  OutputFormat format;
  format.fExtension = extension;
  if (extension == ".mp4") {
    format.fMuxer = "mp4";
    if (hasEncoder("libx264")) {
      format.fEncoder = "libx264";
      format.fDescription = "H.264 in MP4";
      format.fTimeUnits = 1000000;
    } else {
      // MPEG-4 Visual is built into every libavcodec; its clock allows at most 65535 ticks/s.
      format.fEncoder = "mpeg4";
      format.fDescription = "MPEG-4 Visual in MP4 (no H.264 encoder here)";
      format.fTimeUnits = 1000;
    }
  } else if (extension == ".mkv") {
    // Ut Video: lossless and fast both ways, built into libavcodec. Matroska keeps milliseconds.
    format.fMuxer = "matroska";
    format.fEncoder = "utvideo";
    format.fDescription = "Ut Video (lossless) in Matroska";
    format.fTimeUnits = 1000;
    format.fLossless = true;
  } else if (extension == ".avi") {
    format.fMuxer = "avi";
    format.fEncoder = "mjpeg";
    format.fDescription = "Motion JPEG in AVI";
  } else if (extension == ".y4m") {
    format.fMuxer = "yuv4mpegpipe";
    format.fEncoder = "wrapped_avframe";
    format.fDescription = "uncompressed YUV 4:2:2 (YUV4MPEG2)";
    format.fLossless = true;
  } else {
    throw MediaError("unknown extension '" + extension + "' of " + pPath +
                     ": use .mp4, .mkv, .avi or .y4m, or a folder for PNG files");
  }
  if (!hasEncoder(format.fEncoder)) {
    throw MediaError("this FFmpeg has no " + format.fEncoder + " encoder for " + extension);
  }
  return format;
}

// ---------------------------------------------------------------------------------------------
// Writer

struct VideoWriter::Impl {
  std::string fPath;
  OutputFormat fFormat;
  WriterSettings fSettings;
  AVFormatContext* fOutput = nullptr;
  AVCodecContext* fEncoder = nullptr;
  AVStream* fStream = nullptr;
  AVPacket* fPacket = nullptr;
  Scaler fScaler;
  FramePtr fFrame;    // what the encoder takes
  FramePtr fStaging;  // planar copy of the layouts libswscale has no name for
  Layout fStagingLayout = Layout::kYUYV;
  int64_t fLastPts = std::numeric_limits<int64_t>::min();
  int64_t fIndex = 0;
  bool fFinished = false;

  ~Impl() {
    av_packet_free(&fPacket);
    avcodec_free_context(&fEncoder);
    if (fOutput != nullptr) {
      if (!(fOutput->oformat->flags & AVFMT_NOFILE)) avio_closep(&fOutput->pb);
      avformat_free_context(fOutput);
    }
  }

  [[noreturn]] void fail(const std::string& pWhat, int pCode) const {
    throw MediaError("cannot write " + fPath + ": " + pWhat + ": " + avError(pCode));
  }

  void open() {
    int result =
        avformat_alloc_output_context2(&fOutput, nullptr, fFormat.fMuxer.c_str(), fPath.c_str());
    if (result < 0) fail("no " + fFormat.fMuxer + " muxer", result);
    const AVCodec* codec = avcodec_find_encoder_by_name(fFormat.fEncoder.c_str());
    if (codec == nullptr) throw MediaError("no " + fFormat.fEncoder + " encoder");
    fEncoder = avcodec_alloc_context3(codec);
    fPacket = av_packet_alloc();
    if (fEncoder == nullptr || fPacket == nullptr) throw MediaError("out of memory");

    AVRational rate = av_d2q(fSettings.fFrameRate > 0 ? fSettings.fFrameRate : 30.0, 1000);
    if (rate.num <= 0 || rate.den <= 0) rate = {30, 1};
    fEncoder->width = fSettings.fWidth;
    fEncoder->height = fSettings.fHeight;
    fEncoder->framerate = rate;
    fEncoder->time_base =
        fFormat.fTimeUnits > 0 ? AVRational{1, fFormat.fTimeUnits} : av_inv_q(rate);
    fEncoder->thread_count = fSettings.fThreads;
    fEncoder->sample_aspect_ratio = {1, 1};
    // The device's YUV is BT.601; saying so keeps players from guessing BT.709.
    fEncoder->colorspace = AVCOL_SPC_SMPTE170M;
    fEncoder->color_primaries = AVCOL_PRI_SMPTE170M;
    fEncoder->color_trc = AVCOL_TRC_SMPTE170M;
    fEncoder->color_range = AVCOL_RANGE_MPEG;
    AVDictionary* options = nullptr;
    if (fFormat.fEncoder == "libx264") {
      fEncoder->pix_fmt = AV_PIX_FMT_YUV420P;  // 4:2:0: what every player takes
      av_dict_set(&options, "preset", "ultrafast", 0);
      av_dict_set(&options, "crf", "20", 0);
    } else if (fFormat.fEncoder == "mpeg4") {
      fEncoder->pix_fmt = AV_PIX_FMT_YUV420P;
      fEncoder->flags |= AV_CODEC_FLAG_QSCALE;
      fEncoder->global_quality = FF_QP2LAMBDA * 3;
    } else if (fFormat.fEncoder == "mjpeg") {
      fEncoder->pix_fmt = AV_PIX_FMT_YUV422P;  // full range, as JPEG wants it
      fEncoder->color_range = AVCOL_RANGE_JPEG;
      fEncoder->flags |= AV_CODEC_FLAG_QSCALE;
      fEncoder->global_quality = FF_QP2LAMBDA * 3;
    } else {
      fEncoder->pix_fmt = AV_PIX_FMT_YUV422P;  // utvideo and YUV4MPEG2: the camera's sampling
    }
    if (fOutput->oformat->flags & AVFMT_GLOBALHEADER) {
      fEncoder->flags |= AV_CODEC_FLAG_GLOBAL_HEADER;
    }
    result = avcodec_open2(fEncoder, codec, &options);
    av_dict_free(&options);
    if (result < 0) fail("cannot open the " + fFormat.fEncoder + " encoder", result);

    fStream = avformat_new_stream(fOutput, nullptr);
    if (fStream == nullptr) throw MediaError("out of memory");
    result = avcodec_parameters_from_context(fStream->codecpar, fEncoder);
    if (result < 0) fail("codec parameters", result);
    fStream->time_base = fEncoder->time_base;
    fStream->avg_frame_rate = rate;

    char comment[128];
    std::snprintf(comment, sizeof(comment), "%s%" PRId64 " camera=%d", kCommentPrefix,
                  fSettings.fOrigin, fSettings.fCamera);
    av_dict_set(&fOutput->metadata, "comment", comment, 0);
    if (fSettings.fOrigin > 0) {
      av_dict_set(&fOutput->metadata, "creation_time", isoTime(fSettings.fOrigin).c_str(), 0);
    }
    if (!(fOutput->oformat->flags & AVFMT_NOFILE)) {
      result = avio_open(&fOutput->pb, fPath.c_str(), AVIO_FLAG_WRITE);
      if (result < 0) fail("cannot create the file", result);
    }
    result = avformat_write_header(fOutput, nullptr);
    if (result < 0) fail("cannot write the header", result);
    fFrame = makeFrame(fEncoder->pix_fmt, fEncoder->width, fEncoder->height);
  }

  // The source planes of pFrame as libswscale takes them, repacking where needed.
  AVPixelFormat source(const Frame& pFrame, const uint8_t* pData[4], int pStride[4]) {
    const int w = pFrame.fWidth;
    const int h = pFrame.fHeight;
    const AVPixelFormat format = pixelFormatOf(pFrame.fLayout);
    if (pFrame.fLayout == Layout::kYUYV || pFrame.fLayout == Layout::kRGB ||
        pFrame.fLayout == Layout::kBGR) {
      pData[0] = pFrame.fData;
      pStride[0] = static_cast<int>(frameBytes(pFrame.fLayout, w, 1));
      return format;
    }
    if (!fStaging || fStaging->width != w || fStaging->height != h ||
        fStagingLayout != pFrame.fLayout) {
      fStaging = makeFrame(format, w, h);
      fStagingLayout = pFrame.fLayout;
    }
    uint8_t* const* planes = fStaging->data;
    const int* strides = fStaging->linesize;
    for (int y = 0; y < h; ++y) {
      const unsigned char* in = pFrame.fData + frameBytes(pFrame.fLayout, w, y);
      uint8_t* luma = planes[0] + static_cast<ptrdiff_t>(y) * strides[0];
      uint8_t* cb = planes[1] + static_cast<ptrdiff_t>(y) * strides[1];
      uint8_t* cr = planes[2] + static_cast<ptrdiff_t>(y) * strides[2];
      if (pFrame.fLayout == Layout::kLuma) {
        std::memcpy(luma, in, static_cast<size_t>(w));
        std::memset(cb, 128, static_cast<size_t>(w));
        std::memset(cr, 128, static_cast<size_t>(w));
      } else if (pFrame.fLayout == Layout::kYUV) {
        for (int x = 0; x < w; ++x, in += 3) {
          luma[x] = in[0];
          cb[x] = in[1];
          cr[x] = in[2];
        }
      } else {  // kYYCbCr
        for (int x = 0; x + 1 < w; x += 2, in += 4) {
          luma[x] = in[0];
          luma[x + 1] = in[1];
          cb[x / 2] = in[2];
          cr[x / 2] = in[3];
        }
      }
    }
    for (int i = 0; i < 4; ++i) {
      pData[i] = fStaging->data[i];
      pStride[i] = fStaging->linesize[i];
    }
    return format;
  }

  void encode(const AVFrame* pFrame) {
    int result = avcodec_send_frame(fEncoder, pFrame);
    if (result < 0) fail("encoding", result);
    while ((result = avcodec_receive_packet(fEncoder, fPacket)) >= 0) {
      av_packet_rescale_ts(fPacket, fEncoder->time_base, fStream->time_base);
      fPacket->stream_index = fStream->index;
      result = av_interleaved_write_frame(fOutput, fPacket);
      if (result < 0) fail("writing a frame", result);
    }
    if (result != AVERROR(EAGAIN) && result != AVERROR_EOF) fail("encoding", result);
  }
};

VideoWriter::VideoWriter(const std::string& pPath, const OutputFormat& pFormat,
                         const WriterSettings& pSettings)
    : fImpl(new Impl) {
  if (pSettings.fWidth <= 0 || pSettings.fHeight <= 0 || pSettings.fWidth % 2 != 0 ||
      pSettings.fHeight % 2 != 0) {
    throw MediaError("cannot write " + pPath + ": frame size " + std::to_string(pSettings.fWidth) +
                     "x" + std::to_string(pSettings.fHeight) + " (even sizes only)");
  }
  quietByDefault();
  fImpl->fPath = pPath;
  fImpl->fFormat = pFormat;
  fImpl->fSettings = pSettings;
  fImpl->open();
}

VideoWriter::~VideoWriter() = default;

void VideoWriter::write(const Frame& pFrame) {
  Impl& impl = *fImpl;
  if (impl.fFinished) throw MediaError("cannot write " + impl.fPath + ": already finished");
  if (pFrame.fData == nullptr || pFrame.fWidth <= 0 || pFrame.fHeight <= 0) {
    throw MediaError("cannot write " + impl.fPath + ": an empty frame");
  }
  const uint8_t* data[4] = {};
  int stride[4] = {};
  const AVPixelFormat format = impl.source(pFrame, data, stride);
  const AVCodecContext& encoder = *impl.fEncoder;
  // The device's YUV is BT.601 studio range; RGB sources take the matrix of the target only.
  SwsContext* scaler =
      impl.fScaler.get(pFrame.fWidth, pFrame.fHeight, format, SWS_CS_ITU601, false, encoder.width,
                       encoder.height, encoder.pix_fmt, encoder.color_range == AVCOL_RANGE_JPEG);
  if (scaler == nullptr) throw MediaError("cannot convert the frames of " + impl.fPath);
  int result = av_frame_make_writable(impl.fFrame.get());
  if (result < 0) impl.fail("frame buffer", result);
  sws_scale(scaler, data, stride, 0, pFrame.fHeight, impl.fFrame->data, impl.fFrame->linesize);

  int64_t pts = impl.fIndex;
  if (impl.fFormat.fTimeUnits > 0) {
    pts = av_rescale_q_rnd(pFrame.fTime - impl.fSettings.fOrigin, kMicroseconds, encoder.time_base,
                           AV_ROUND_NEAR_INF);
  }
  if (pts <= impl.fLastPts) pts = impl.fLastPts + 1;
  impl.fLastPts = pts;
  ++impl.fIndex;
  impl.fFrame->pts = pts;
  impl.fFrame->quality = encoder.global_quality;
  impl.encode(impl.fFrame.get());
}

void VideoWriter::finish() {
  Impl& impl = *fImpl;
  if (impl.fFinished) return;
  impl.encode(nullptr);
  const int result = av_write_trailer(impl.fOutput);
  if (result < 0) impl.fail("completing the file", result);
  if (!(impl.fOutput->oformat->flags & AVFMT_NOFILE)) {
    const int closed = avio_closep(&impl.fOutput->pb);
    if (closed < 0) impl.fail("closing the file", closed);
  }
  impl.fFinished = true;
}

// ---------------------------------------------------------------------------------------------
// Reader

namespace {

// An opened input file and its best video stream; closes everything it opened.
struct Input {
  std::string fPath;
  AVFormatContext* fFormat = nullptr;
  AVStream* fStream = nullptr;
  const AVCodec* fCodec = nullptr;

  explicit Input(const std::string& pPath) : fPath(pPath) {
    int result = avformat_open_input(&fFormat, pPath.c_str(), nullptr, nullptr);
    if (result < 0) {
      throw MediaError("cannot read " + pPath + " as a video: " + avError(result));
    }
    result = avformat_find_stream_info(fFormat, nullptr);
    if (result < 0) {
      avformat_close_input(&fFormat);
      throw MediaError("cannot read " + pPath + " as a video: " + avError(result));
    }
    const int index = av_find_best_stream(fFormat, AVMEDIA_TYPE_VIDEO, -1, -1, &fCodec, 0);
    if (index < 0) {
      avformat_close_input(&fFormat);
      throw MediaError(pPath + " has no video stream that FFmpeg can decode");
    }
    fStream = fFormat->streams[index];
  }
  ~Input() { avformat_close_input(&fFormat); }
  Input(const Input&) = delete;
  Input& operator=(const Input&) = delete;
};

int matrixOf(AVColorSpace pSpace) {
  switch (pSpace) {
    case AVCOL_SPC_BT709:
      return SWS_CS_ITU709;
    case AVCOL_SPC_FCC:
      return SWS_CS_FCC;
    case AVCOL_SPC_SMPTE240M:
      return SWS_CS_SMPTE240M;
    case AVCOL_SPC_BT2020_NCL:
    case AVCOL_SPC_BT2020_CL:
      return SWS_CS_BT2020;
    default:
      return SWS_CS_ITU601;
  }
}

}  // namespace

struct VideoReader::Impl {
  std::string fPath;
  int fThreads = 0;
  std::unique_ptr<Input> fInput;
  AVCodecContext* fDecoder = nullptr;
  AVPacket* fPacket = nullptr;
  FramePtr fFrame;
  Scaler fScaler;
  int64_t fFirst = AV_NOPTS_VALUE;  // time of the first frame, in the stream's time base
  int64_t fLastTime = 0;
  bool fDraining = false;
  int64_t fOrigin = 0;
  int fCamera = 0;

  ~Impl() { close(); }

  void close() {
    fScaler.reset();
    av_packet_free(&fPacket);
    avcodec_free_context(&fDecoder);
    fFrame.reset();
    fInput.reset();
  }

  void open() {
    fInput.reset(new Input(fPath));
    fDecoder = avcodec_alloc_context3(fInput->fCodec);
    fPacket = av_packet_alloc();
    fFrame.reset(av_frame_alloc());
    if (fDecoder == nullptr || fPacket == nullptr || !fFrame) throw MediaError("out of memory");
    int result = avcodec_parameters_to_context(fDecoder, fInput->fStream->codecpar);
    if (result >= 0) {
      fDecoder->thread_count = fThreads;
      result = avcodec_open2(fDecoder, fInput->fCodec, nullptr);
    }
    if (result < 0) {
      throw MediaError("cannot decode " + fPath + " (" + fInput->fCodec->name +
                       "): " + avError(result));
    }
    readTags(fInput->fFormat->metadata, fOrigin, fCamera);
    fFirst = AV_NOPTS_VALUE;
    fLastTime = 0;
    fDraining = false;
  }

  double rate() const {
    const AVStream& stream = *fInput->fStream;
    if (stream.avg_frame_rate.num > 0 && stream.avg_frame_rate.den > 0) {
      return av_q2d(stream.avg_frame_rate);
    }
    if (stream.r_frame_rate.num > 0 && stream.r_frame_rate.den > 0) {
      return av_q2d(stream.r_frame_rate);
    }
    return 0.0;
  }

  // The next decoded frame into fFrame; false at the end.
  bool decode() {
    for (;;) {
      int result = avcodec_receive_frame(fDecoder, fFrame.get());
      if (result >= 0) return true;
      if (result == AVERROR_EOF) return false;
      if (result != AVERROR(EAGAIN)) {
        throw MediaError("cannot decode " + fPath + ": " + avError(result));
      }
      if (fDraining) return false;
      result = av_read_frame(fInput->fFormat, fPacket);
      if (result < 0) {
        if (result != AVERROR_EOF) {
          throw MediaError("cannot read " + fPath + ": " + avError(result));
        }
        fDraining = true;
        avcodec_send_packet(fDecoder, nullptr);
        continue;
      }
      if (fPacket->stream_index == fInput->fStream->index) {
        // A packet the decoder rejects (damaged data) is skipped, as players do.
        avcodec_send_packet(fDecoder, fPacket);
      }
      av_packet_unref(fPacket);
    }
  }
};

VideoReader::VideoReader(const std::string& pPath, int pThreads) : fImpl(new Impl) {
  quietByDefault();
  fImpl->fPath = pPath;
  fImpl->fThreads = pThreads;
  fImpl->open();
}

VideoReader::~VideoReader() = default;

int VideoReader::width() const {
  return fImpl->fDecoder->width;
}

int VideoReader::height() const {
  return fImpl->fDecoder->height;
}

double VideoReader::frameRate() const {
  return fImpl->rate();
}

int64_t VideoReader::frameCountHint() const {
  const AVStream& stream = *fImpl->fInput->fStream;
  if (stream.nb_frames > 0) return stream.nb_frames;
  const double rate = fImpl->rate();
  if (stream.duration > 0 && rate > 0) {
    return std::llround(static_cast<double>(stream.duration) * av_q2d(stream.time_base) * rate);
  }
  const int64_t duration = fImpl->fInput->fFormat->duration;
  if (duration > 0 && rate > 0) {
    return std::llround(static_cast<double>(duration) / AV_TIME_BASE * rate);
  }
  return 0;
}

int64_t VideoReader::origin() const {
  return fImpl->fOrigin;
}

int VideoReader::camera() const {
  return fImpl->fCamera;
}

bool VideoReader::next(unsigned char* pOut, int pWidth, int pHeight, Layout pLayout,
                       int64_t& pTime) {
  Impl& impl = *fImpl;
  if (pLayout != Layout::kYUYV && pLayout != Layout::kRGB) {
    throw MediaError("a reader delivers YUYV or RGB only");
  }
  if (!impl.decode()) return false;
  AVFrame& frame = *impl.fFrame;

  // Times from the stream; a frame without one comes a nominal period after the one before.
  const AVRational base = impl.fInput->fStream->time_base;
  const int64_t stamp = frame.best_effort_timestamp;
  if (stamp == AV_NOPTS_VALUE) {
    const double rate = impl.rate();
    pTime = impl.fLastTime + (rate > 0 ? std::llround(1e6 / rate) : 33333);
  } else {
    if (impl.fFirst == AV_NOPTS_VALUE) impl.fFirst = stamp;
    pTime = av_rescale_q(stamp - impl.fFirst, base, kMicroseconds);
  }
  impl.fLastTime = pTime;

  const AVPixelFormat source = static_cast<AVPixelFormat>(frame.format);
  const AVPixelFormat target = pixelFormatOf(pLayout);
  SwsContext* scaler = impl.fScaler.get(
      frame.width, frame.height, source, matrixOf(frame.colorspace),
      frame.color_range == AVCOL_RANGE_JPEG || isFullRange(source), pWidth, pHeight, target, false);
  if (scaler == nullptr) {
    throw MediaError("cannot convert the frames of " + impl.fPath + " (" +
                     (av_get_pix_fmt_name(source) ? av_get_pix_fmt_name(source) : "?") + ")");
  }
  uint8_t* data[4] = {pOut, nullptr, nullptr, nullptr};
  int stride[4] = {static_cast<int>(frameBytes(pLayout, pWidth, 1)), 0, 0, 0};
  sws_scale(scaler, frame.data, frame.linesize, 0, frame.height, data, stride);
  av_frame_unref(&frame);
  return true;
}

void VideoReader::rewind() {
  fImpl->close();
  fImpl->open();
}

// ---------------------------------------------------------------------------------------------
// Summaries

int64_t TimeStats::duration() const {
  if (fCount < 2) return 0;
  return fLast - fFirst + std::llround(fMeanInterval);
}

TimeStats timeStats(const std::vector<int64_t>& pTimes) {
  TimeStats stats;
  stats.fCount = static_cast<int64_t>(pTimes.size());
  if (pTimes.empty()) return stats;
  stats.fFirst = pTimes.front();
  stats.fLast = pTimes.back();
  if (pTimes.size() < 2) return stats;
  const double intervals = static_cast<double>(pTimes.size() - 1);
  stats.fMeanInterval = static_cast<double>(stats.fLast - stats.fFirst) / intervals;
  double squares = 0.0;
  for (size_t i = 1; i < pTimes.size(); ++i) {
    const double deviation = static_cast<double>(pTimes[i] - pTimes[i - 1]) - stats.fMeanInterval;
    squares += deviation * deviation;
  }
  stats.fJitter = std::sqrt(squares / intervals);
  return stats;
}

VideoSummary probeVideo(const std::string& pPath) {
  quietByDefault();
  Input input(pPath);
  const AVCodecParameters& codec = *input.fStream->codecpar;
  VideoSummary summary;
  summary.fContainer = input.fFormat->iformat->name;
  summary.fCodec = avcodec_get_name(codec.codec_id);
  const char* pixels = av_get_pix_fmt_name(static_cast<AVPixelFormat>(codec.format));
  summary.fPixelFormat = pixels != nullptr ? pixels : "unknown";
  const char* range = av_color_range_name(codec.color_range);
  summary.fColorRange = range != nullptr ? range : "unknown";
  const char* matrix = av_color_space_name(codec.color_space);
  summary.fColorMatrix = matrix != nullptr ? matrix : "unknown";
  summary.fWidth = codec.width;
  summary.fHeight = codec.height;
  int64_t origin = 0;
  readTags(input.fFormat->metadata, origin, summary.fCamera);

  // Every packet of the stream is one frame of these codecs; their times, sorted, are the
  // presentation order whatever the decoding order was.
  std::vector<int64_t> stamps;
  AVPacket* packet = av_packet_alloc();
  if (packet == nullptr) throw MediaError("out of memory");
  int result = 0;
  while ((result = av_read_frame(input.fFormat, packet)) >= 0) {
    if (packet->stream_index == input.fStream->index) {
      int64_t stamp = packet->pts != AV_NOPTS_VALUE ? packet->pts : packet->dts;
      if (stamp == AV_NOPTS_VALUE) stamp = stamps.empty() ? 0 : stamps.back() + 1;
      stamps.push_back(stamp);
    }
    av_packet_unref(packet);
  }
  av_packet_free(&packet);
  if (result != AVERROR_EOF) {
    summary.fProblem =
        "read error after " + std::to_string(stamps.size()) + " frames: " + avError(result);
  }
  std::sort(stamps.begin(), stamps.end());
  std::vector<int64_t> times;
  times.reserve(stamps.size());
  for (int64_t stamp : stamps) {
    times.push_back(origin +
                    av_rescale_q(stamp - stamps.front(), input.fStream->time_base, kMicroseconds));
  }
  summary.fTimes = timeStats(times);
  return summary;
}

}  // namespace oxmedia
