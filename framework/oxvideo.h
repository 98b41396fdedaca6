// OXVideo: writes and replays .oxv recordings (streams of raw frames with their capture data).
//
// A recording holds one or more streams; frames are stored in turn, stream 0, 1, ..., S-1, 0, ...
// The byte layout is described in docs/oxv-format.md.
//
// An OXVideo object is not thread-safe: its owners serialise every call, accessors included.
#pragma once

#include <array>
#include <cstdint>
#include <cstdio>
#include <string>
#include <vector>

#include "oximage.h"

namespace OX {

// The format of one stream, stored as four little-endian 32-bit integers in the file header.
// pixelDepth is carried for the consumers of the file and not interpreted here.
struct streamHeader {
  int32_t width;
  int32_t height;
  int32_t colorSpace;
  int32_t pixelDepth;
};
static_assert(sizeof(streamHeader) == 16, "streamHeader is four 32-bit fields without padding");

class OXVideo {
 public:
  // Most streams a recording may hold.
  static constexpr int kMaxStreams = 16;
  // Largest frame in bytes: 1280 x 960 pixels of 3 layers.
  static constexpr int kMaxFrameSize = 1280 * 960 * 3;

  OXVideo();
  ~OXVideo();  // closes whatever is open
  OXVideo(const OXVideo&) = delete;
  OXVideo& operator=(const OXVideo&) = delete;

  // Writer.
  // Creates or truncates pPath and writes the whole header at once, so that a recording stopped
  // at any moment stays readable up to its last complete frame. Closes whatever was open first.
  // While the calling thread serves a remote call under a file policy (oxcaller.h), it only
  // creates a new file, never through a symbolic link, and the readers open regular files only.
  // False (nothing left open) when the file cannot be written, pStreams is empty or holds more
  // than kMaxStreams, or a stream has a non-positive size or more than kMaxFrameSize bytes.
  bool recordVideo(const std::string& pPath, unsigned int pPeriod,
                   const std::vector<streamHeader>& pStreams);
  // Appends one frame; successive frames go to streams 0, 1, ..., S-1, 0, ... in turn. False when
  // no recording is open, pData is null with pSize > 0, or pSize is outside 0..kMaxFrameSize. A
  // failed write ends the recording (the file keeps every frame before it). Frames are not
  // flushed one by one: closeVideo flushes.
  bool write(const char* pData, int pSize, int64_t pTimeStamp, signed char pCameraId,
             float pLeftAngle, float pTopAngle, float pRightAngle, float pBottomAngle);

  // Reader.
  // Opens pPath, checks its header and indexes every frame in one pass over the frame headers.
  // Closes whatever was open first. False (nothing left open) for a missing file, a file that is
  // no recording or of an unknown version, a bad stream table, or a corrupt frame. A last frame
  // cut short is left out; every complete frame before it replays.
  bool readVideo(const std::string& pPath);
  // Like readVideo, but a corrupt frame ends the index instead of refusing the file, so that the
  // frames before it can still be inspected or salvaged. False only when the file cannot be
  // opened or its header is unusable. getProblem() says what was left out.
  bool readVideoUpToDamage(const std::string& pPath);
  // The three readers fill pImage with one frame and move the cursor (see getCurrentImageNumber).
  // A failed read (nothing open, null image, index or stream out of range, a frame of no known
  // format, external pixels missing) returns false and changes neither the cursor nor the image.
  // The flags are accepted for callers that pass them and reserved: they have no effect.
  //
  // Reads image[cursor] of the current stream, then cursor + 1.
  bool getNextFrame(OXImage* pImage, bool pFlag);
  // Reads image[cursor - 2] of the current stream (the one before the last read), then cursor - 1.
  bool getPrecedingFrame(OXImage* pImage, bool pFlag);
  // Reads image pIndex of stream pStream; the current stream becomes pStream, the cursor pIndex
  // + 1.
  bool getFrame(OXImage* pImage, int pIndex, int pStream, bool pFlag);
  // Closes the reader or the writer (flushing it). Safe to call at any time, any number of times.
  // False only when the final flush of a recording failed (the last frames may be lost).
  bool closeVideo();

  bool isReading() const { return fMode == Mode::kReading; }
  bool isRecording() const { return fMode == Mode::kRecording; }
  // Images per stream: complete frames / streams, so an image counts once every stream has its
  // frame. While recording, the images written so far.
  int getNumberOfImages() const;
  int getNumberOfStreams() const { return static_cast<int>(fStreams.size()); }
  const std::vector<streamHeader>& getStreams() const { return fStreams; }
  // The resolution code of the stream's width and height, -1 when none matches or out of range.
  int getStreamResolution(int pStream) const;
  // The stream's colour space, -1 when out of range.
  int getStreamColorSpace(int pStream) const;
  // The reader's cursor: the index of the image getNextFrame reads.
  int getCurrentImageNumber() const { return fCursor; }
  // The stream getNextFrame and getPrecedingFrame read.
  int getCurrentStream() const { return fCurrentStream; }
  // The period given to recordVideo, stored unchanged.
  unsigned int getPeriod() const { return fPeriod; }

  // Inspection of what the last readVideo or readVideoUpToDamage found.
  // Why the file was refused, or what was left out of a file that was read (a frame cut short,
  // a corrupt frame, an incomplete image); empty for a whole file.
  const std::string& getProblem() const { return fProblem; }
  // Complete frames indexed, of all streams together.
  int getNumberOfFrames() const { return static_cast<int>(fFrameOffsets.size()); }
  // Bytes of the file, and bytes after the last complete frame (0 for a whole file).
  int64_t getFileSize() const { return fFileSize; }
  int64_t getUnreadBytes() const;
  // The header of image pIndex of stream pStream, without its pixels; the cursor does not move.
  struct FrameInfo {
    int32_t fSize;
    int64_t fTimeStamp;
    signed char fCameraId;
  };
  bool getFrameInfo(int pIndex, int pStream, FrameInfo& pInfo);

  // Bytes of the file header and of each frame header.
  static constexpr int kFileHeaderFixedSize = 16;
  static constexpr int kFrameHeaderSize = 36;

 private:
  enum class Mode { kClosed, kReading, kRecording };

  bool open(const std::string& pPath, bool pUpToDamage);
  // Reads and checks the header of record pRecord into fFrameHeader; false on any failure.
  bool readRecordHeader(size_t pRecord);
  bool readRecord(OXImage* pImage, int pIndex, int pStream);
  bool seekTo(int64_t pOffset);
  bool closeFile();

  std::FILE* fFile;
  Mode fMode;
  unsigned int fPeriod;
  std::vector<streamHeader> fStreams;
  // Reader: byte offset of every complete frame, in file order.
  std::vector<int64_t> fFrameOffsets;
  // Reader: the file's length, and where its last complete frame ends.
  int64_t fFileSize;
  int64_t fIndexEnd;
  std::string fProblem;
  // Writer: frames written so far.
  int64_t fRecordsWritten;
  // Where the file position is, or -1 when unknown; saves a seek on sequential reads.
  int64_t fPosition;
  int fCurrentStream;
  int fCursor;
  std::array<unsigned char, kFrameHeaderSize> fFrameHeader;
};

}  // namespace OX
