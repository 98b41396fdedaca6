// FFmpeg's libraries (libavformat, libavcodec, libswscale) behind a small interface for the tools:
// writing frames to a video file, decoding any video FFmpeg reads, and summarising a video file.
// Every failure throws MediaError with a message that names the file.
#pragma once

#include <cstdint>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

namespace oxmedia {

class MediaError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

// Pixel layouts handed to a writer or asked of a reader: 8 bits a sample, rows without padding.
// The luma/chroma layouts are BT.601 studio range, as the device makes them.
enum class Layout {
  kYUYV,    // Y0 U Y1 V per two pixels (kYUV422); readers deliver this one and kRGB
  kRGB,     // R G B (kRGB)
  kBGR,     // B G R (kBGR, kH2RGB)
  kYUV,     // Y U V per pixel (kYUV)
  kYYCbCr,  // Y0 Y1 Cb Cr per two pixels (kYYCbCr)
  kLuma,    // Y alone (kYuv)
};
// Bytes of one frame.
size_t frameBytes(Layout pLayout, int pWidth, int pHeight);

// How a file of one extension is written.
struct OutputFormat {
  std::string fExtension;    // ".mp4"
  std::string fMuxer;        // libavformat's name: "mp4"
  std::string fEncoder;      // libavcodec's name: "libx264"
  std::string fDescription;  // for people: "H.264 in MP4"
  // Per-frame times in this many units a second; 0: a constant rate, one frame per period.
  int fTimeUnits = 0;
  bool fLossless = false;
};
// The format of pPath's extension, .mp4, .mkv, .avi or .y4m (any case), with the encoder chosen
// from what this libavcodec has (.mp4: H.264 through libx264, else MPEG-4 Visual). Throws
// MediaError naming the extensions known for any other.
OutputFormat outputFormatFor(const std::string& pPath);
// True when this libavcodec has the encoder of that name.
bool hasEncoder(const std::string& pName);
// FFmpeg's own messages on stderr (off by default: errors reach the user through MediaError).
void showLibraryMessages(bool pShow);

struct WriterSettings {
  int fWidth = 0;  // frame size of the file: frames of another size are scaled to it
  int fHeight = 0;
  double fFrameRate = 30.0;  // the nominal rate; the only timing of constant-rate formats
  int64_t fOrigin = 0;       // time of the first frame, microseconds: kept in the metadata
  int fCamera = 0;           // camera of the frames, kept in the metadata
  int fThreads = 0;          // encoder threads, 0 for as many as the machine has
};

// A frame given to a writer.
struct Frame {
  const unsigned char* fData = nullptr;
  int fWidth = 0;
  int fHeight = 0;
  Layout fLayout = Layout::kYUYV;
  int64_t fTime = 0;  // microseconds, on the clock of WriterSettings::fOrigin
};

// Writes one video stream to a file. Times that do not rise are nudged up by one unit of the
// file's clock, since containers refuse them.
class VideoWriter {
 public:
  VideoWriter(const std::string& pPath, const OutputFormat& pFormat,
              const WriterSettings& pSettings);
  ~VideoWriter();  // an unfinished file is closed and left as it is, for the caller to remove
  VideoWriter(const VideoWriter&) = delete;
  VideoWriter& operator=(const VideoWriter&) = delete;

  void write(const Frame& pFrame);
  // Flushes the encoder and completes the file.
  void finish();

 private:
  struct Impl;
  std::unique_ptr<Impl> fImpl;
};

// Decodes the best video stream of any file FFmpeg reads, frame by frame.
class VideoReader {
 public:
  explicit VideoReader(const std::string& pPath, int pThreads = 0);
  ~VideoReader();
  VideoReader(const VideoReader&) = delete;
  VideoReader& operator=(const VideoReader&) = delete;

  int width() const;
  int height() const;
  // The rate the file states (average, else nominal), 0 when it states none.
  double frameRate() const;
  // The frames the file says it has, or its duration times its rate; 0 when unknown.
  int64_t frameCountHint() const;
  // Time of the first frame in microseconds: the origin an export stored, else the file's
  // creation time, else 0. And the camera an export stored, else 0.
  int64_t origin() const;
  int camera() const;
  // Decodes the next frame into pOut (frameBytes(pLayout, pWidth, pHeight) bytes), scaled to
  // pWidth x pHeight, in kYUYV or kRGB; pTime gets its time in microseconds since the first
  // frame. False at the end of the stream. Packets the decoder rejects are skipped.
  bool next(unsigned char* pOut, int pWidth, int pHeight, Layout pLayout, int64_t& pTime);
  // Starts again from the first frame.
  void rewind();

 private:
  struct Impl;
  std::unique_ptr<Impl> fImpl;
};

// Frame times and what follows from them.
struct TimeStats {
  int64_t fCount = 0;
  int64_t fFirst = 0;
  int64_t fLast = 0;
  double fMeanInterval = 0.0;  // microseconds, 0 with fewer than two frames
  double fJitter = 0.0;        // standard deviation of the intervals, microseconds
  // Last - first + one mean interval: what the frames cover, as players count a video's length.
  int64_t duration() const;
};
TimeStats timeStats(const std::vector<int64_t>& pTimes);

// What `oxv info` tells of a video file, from its packets (nothing is decoded).
struct VideoSummary {
  std::string fContainer;  // "mov,mp4,m4a,3gp,3g2,mj2"
  std::string fCodec;      // "h264"
  std::string fPixelFormat;
  std::string fColorRange;   // "tv", "pc" or "unknown"
  std::string fColorMatrix;  // "smpte170m", "bt709", ... or "unknown"
  int fWidth = 0;
  int fHeight = 0;
  int fCamera = 0;
  TimeStats fTimes;      // absolute: origin() + packet times
  std::string fProblem;  // a read error that ended the file early; empty when read whole
};
VideoSummary probeVideo(const std::string& pPath);

}  // namespace oxmedia
