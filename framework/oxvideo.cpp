// OXVideo: the .oxv writer, the one-pass frame index and the frame reader.
#include "oxvideo.h"

#include <cerrno>
#include <cstring>
#include <limits>
#include <utility>

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/types.h>
#include <unistd.h>

#include "kilog.h"
#include "oxcaller.h"
#include "oxtypes.h"

namespace OX {

namespace {

const char* const kCategory = "framework.oxvideo";

// A path with a NUL byte would open the file that its first part names: it names no file.
bool namesAFile(const std::string& pPath, const char* pFunction) {
  if (pPath.find('\0') == std::string::npos) return true;
  ki::log::LogStream(ki::log::kLogError, kCategory, __FILE__, pFunction, __LINE__)
      << "refusing " << pPath.c_str() << "...: a path with a NUL byte";
  return false;
}

const unsigned char kMagic[4] = {'O', 'X', 'V', 'R'};
const unsigned char kFrameMarker[4] = {'O', 'X', 'F', 'R'};
constexpr uint32_t kVersion = 1;

static_assert(sizeof(float) == 4 && std::numeric_limits<float>::is_iec559,
              "angles are stored as IEEE 754 single precision");

// Under the file policy of a remote call (oxfilepolicy.h) a recording is a new file, made without
// following a link, and a file to read must be a regular one, opened without waiting (a FIFO
// would block the call for ever). Elsewhere files open as they always have.
std::FILE* openFile(const std::string& pPath, bool pWrite) {
  if (currentFilePolicy() == nullptr) return std::fopen(pPath.c_str(), pWrite ? "wb" : "rb");
  const int flags = pWrite ? O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW : O_RDONLY | O_NONBLOCK;
  const int fd = ::open(pPath.c_str(), flags | O_CLOEXEC, 0644);
  if (fd < 0) return nullptr;
  struct stat info;
  std::FILE* file = nullptr;
  if (fstat(fd, &info) != 0 || !S_ISREG(info.st_mode)) {
    errno = EINVAL;
  } else if (fcntl(fd, F_SETFL, 0) == 0) {
    file = fdopen(fd, pWrite ? "wb" : "rb");
  }
  if (file == nullptr) {
    const int why = errno;
    ::close(fd);
    errno = why;
  }
  return file;
}

void putU32(unsigned char* pOut, uint32_t pValue) {
  for (int i = 0; i < 4; ++i) pOut[i] = static_cast<unsigned char>(pValue >> (8 * i));
}

void putU64(unsigned char* pOut, uint64_t pValue) {
  for (int i = 0; i < 8; ++i) pOut[i] = static_cast<unsigned char>(pValue >> (8 * i));
}

void putFloat(unsigned char* pOut, float pValue) {
  uint32_t bits = 0;
  std::memcpy(&bits, &pValue, sizeof(bits));
  putU32(pOut, bits);
}

uint32_t getU32(const unsigned char* pIn) {
  uint32_t value = 0;
  for (int i = 3; i >= 0; --i) value = (value << 8) | pIn[i];
  return value;
}

uint64_t getU64(const unsigned char* pIn) {
  uint64_t value = 0;
  for (int i = 7; i >= 0; --i) value = (value << 8) | pIn[i];
  return value;
}

int32_t getI32(const unsigned char* pIn) {
  return static_cast<int32_t>(getU32(pIn));
}

float getFloat(const unsigned char* pIn) {
  const uint32_t bits = getU32(pIn);
  float value = 0.0f;
  std::memcpy(&value, &bits, sizeof(value));
  return value;
}

// Bytes of a frame of this format, computed wide so that no header value can overflow it.
int64_t frameBytes(int64_t pWidth, int64_t pHeight, int pColorSpace) {
  return pWidth * pHeight * getNumLayersFromColorSpace(pColorSpace);
}

bool isValidStream(const streamHeader& pStream) {
  return pStream.width > 0 && pStream.height > 0 &&
         frameBytes(pStream.width, pStream.height, pStream.colorSpace) <= OXVideo::kMaxFrameSize;
}

// Frame header fields, offsets within the frame header.
constexpr int kMarkerAt = 0;
constexpr int kSizeAt = 4;
constexpr int kTimeStampAt = 8;
constexpr int kCameraIdAt = 16;
constexpr int kLeftAt = 20;
constexpr int kTopAt = 24;
constexpr int kRightAt = 28;
constexpr int kBottomAt = 32;

bool isFrameHeaderSane(const unsigned char* pHeader) {
  if (std::memcmp(pHeader + kMarkerAt, kFrameMarker, sizeof(kFrameMarker)) != 0) return false;
  const int32_t size = getI32(pHeader + kSizeAt);
  return size >= 0 && size <= OXVideo::kMaxFrameSize;
}

}  // namespace

OXVideo::OXVideo()
    : fFile(nullptr),
      fMode(Mode::kClosed),
      fPeriod(0),
      fFileSize(0),
      fIndexEnd(0),
      fRecordsWritten(0),
      fPosition(-1),
      fCurrentStream(0),
      fCursor(0),
      fFrameHeader() {}

OXVideo::~OXVideo() {
  closeVideo();
}

bool OXVideo::recordVideo(const std::string& pPath, unsigned int pPeriod,
                          const std::vector<streamHeader>& pStreams) {
  closeVideo();
  if (!namesAFile(pPath, __func__)) return false;
  if (pStreams.empty() || pStreams.size() > static_cast<size_t>(kMaxStreams)) {
    ki::log::LogStream(ki::log::kLogError, kCategory, __FILE__, __func__, __LINE__)
        << "refusing " << pPath << ": " << pStreams.size() << " streams (1 to " << kMaxStreams
        << " allowed)";
    return false;
  }
  for (const streamHeader& stream : pStreams) {
    if (!isValidStream(stream)) {
      ki::log::LogStream(ki::log::kLogError, kCategory, __FILE__, __func__, __LINE__)
          << "refusing " << pPath << ": invalid stream " << stream.width << "x" << stream.height
          << " colour space " << stream.colorSpace;
      return false;
    }
  }

  // The whole header goes out in one write, so a reader never sees half a stream table.
  std::vector<unsigned char> header(kFileHeaderFixedSize + 16 * pStreams.size());
  std::memcpy(header.data(), kMagic, sizeof(kMagic));
  putU32(header.data() + 4, kVersion);
  putU32(header.data() + 8, pPeriod);
  putU32(header.data() + 12, static_cast<uint32_t>(pStreams.size()));
  unsigned char* out = header.data() + kFileHeaderFixedSize;
  for (const streamHeader& stream : pStreams) {
    putU32(out, static_cast<uint32_t>(stream.width));
    putU32(out + 4, static_cast<uint32_t>(stream.height));
    putU32(out + 8, static_cast<uint32_t>(stream.colorSpace));
    putU32(out + 12, static_cast<uint32_t>(stream.pixelDepth));
    out += 16;
  }

  fFile = openFile(pPath, true);
  if (fFile == nullptr) {
    ki::log::LogStream(ki::log::kLogError, kCategory, __FILE__, __func__, __LINE__)
        << "cannot create " << pPath << ": " << std::strerror(errno);
    return false;
  }
  if (std::fwrite(header.data(), 1, header.size(), fFile) != header.size() ||
      std::fflush(fFile) != 0) {
    ki::log::LogStream(ki::log::kLogError, kCategory, __FILE__, __func__, __LINE__)
        << "cannot write the header of " << pPath;
    closeFile();
    return false;
  }
  fMode = Mode::kRecording;
  fPeriod = pPeriod;
  fStreams = pStreams;
  fRecordsWritten = 0;
  return true;
}

bool OXVideo::write(const char* pData, int pSize, int64_t pTimeStamp, signed char pCameraId,
                    float pLeftAngle, float pTopAngle, float pRightAngle, float pBottomAngle) {
  if (fMode != Mode::kRecording) return false;
  if (pSize < 0 || pSize > kMaxFrameSize || (pData == nullptr && pSize > 0)) return false;

  unsigned char* header = fFrameHeader.data();
  std::memset(header, 0, fFrameHeader.size());
  std::memcpy(header + kMarkerAt, kFrameMarker, sizeof(kFrameMarker));
  putU32(header + kSizeAt, static_cast<uint32_t>(pSize));
  putU64(header + kTimeStampAt, static_cast<uint64_t>(pTimeStamp));
  header[kCameraIdAt] = static_cast<unsigned char>(pCameraId);
  putFloat(header + kLeftAt, pLeftAngle);
  putFloat(header + kTopAt, pTopAngle);
  putFloat(header + kRightAt, pRightAngle);
  putFloat(header + kBottomAt, pBottomAngle);

  const size_t size = static_cast<size_t>(pSize);
  if (std::fwrite(header, 1, fFrameHeader.size(), fFile) != fFrameHeader.size() ||
      (size > 0 && std::fwrite(pData, 1, size, fFile) != size)) {
    // Writing on after a partial frame would make every later frame unreadable: stop here.
    ki::log::LogStream(ki::log::kLogError, kCategory, __FILE__, __func__, __LINE__)
        << "write failed after " << fRecordsWritten << " frames; recording closed";
    closeVideo();
    return false;
  }
  ++fRecordsWritten;
  return true;
}

bool OXVideo::readVideo(const std::string& pPath) {
  return open(pPath, false);
}

bool OXVideo::readVideoUpToDamage(const std::string& pPath) {
  return open(pPath, true);
}

bool OXVideo::open(const std::string& pPath, bool pUpToDamage) {
  closeVideo();
  if (!namesAFile(pPath, __func__)) return false;
  fFile = openFile(pPath, false);
  if (fFile == nullptr) {
    fProblem = std::string("cannot open: ") + std::strerror(errno);
    ki::log::LogStream(ki::log::kLogError, kCategory, __FILE__, __func__, __LINE__)
        << "cannot open " << pPath << ": " << std::strerror(errno);
    return false;
  }
  auto refuse = [this, &pPath](const std::string& pWhy) {
    ki::log::LogStream(ki::log::kLogError, kCategory, __FILE__, __func__, __LINE__)
        << "refusing " << pPath << ": " << pWhy;
    closeVideo();
    fProblem = pWhy;
    return false;
  };

  if (fseeko(fFile, 0, SEEK_END) != 0) return refuse("cannot seek");
  const int64_t fileSize = static_cast<int64_t>(ftello(fFile));
  if (fileSize < 0 || fseeko(fFile, 0, SEEK_SET) != 0) return refuse("cannot seek");

  unsigned char fixed[kFileHeaderFixedSize];
  if (std::fread(fixed, 1, sizeof(fixed), fFile) != sizeof(fixed)) {
    return refuse("header cut short");
  }
  if (std::memcmp(fixed, kMagic, sizeof(kMagic)) != 0) return refuse("not an .oxv recording");
  const uint32_t version = getU32(fixed + 4);
  if (version != kVersion) return refuse("unknown version " + std::to_string(version));
  const uint32_t streamCount = getU32(fixed + 12);
  if (streamCount == 0 || streamCount > static_cast<uint32_t>(kMaxStreams)) {
    return refuse("stream count " + std::to_string(streamCount));
  }
  std::vector<streamHeader> streams(streamCount);
  for (streamHeader& stream : streams) {
    unsigned char in[16];
    if (std::fread(in, 1, sizeof(in), fFile) != sizeof(in)) return refuse("header cut short");
    stream.width = getI32(in);
    stream.height = getI32(in + 4);
    stream.colorSpace = getI32(in + 8);
    stream.pixelDepth = getI32(in + 12);
    if (!isValidStream(stream)) return refuse("invalid stream header");
  }

  // One pass over the frame headers, seeking over the pixels. Sizes are checked against the file
  // length rather than by reading, so a frame cut short at the end is simply left out.
  std::string problem;
  int64_t offset = kFileHeaderFixedSize + 16 * static_cast<int64_t>(streamCount);
  while (offset < fileSize) {
    const std::string where = " at byte " + std::to_string(offset);
    if (fileSize - offset < kFrameHeaderSize) {
      problem = "frame header cut short" + where;
      break;
    }
    if (fseeko(fFile, static_cast<off_t>(offset), SEEK_SET) != 0 ||
        std::fread(fFrameHeader.data(), 1, fFrameHeader.size(), fFile) != fFrameHeader.size()) {
      return refuse("cannot read the frame" + where);
    }
    if (!isFrameHeaderSane(fFrameHeader.data())) {
      if (!pUpToDamage) return refuse("corrupt frame" + where);
      problem = "corrupt frame" + where;
      break;
    }
    const int64_t next = offset + kFrameHeaderSize + getI32(fFrameHeader.data() + kSizeAt);
    if (next > fileSize) {
      problem = "frame cut short" + where + " (" + std::to_string(fileSize - offset) + " of " +
                std::to_string(next - offset) + " bytes)";
      break;
    }
    fFrameOffsets.push_back(offset);
    offset = next;
  }
  if (fFrameOffsets.size() > static_cast<size_t>(std::numeric_limits<int>::max())) {
    return refuse("too many frames");
  }
  const size_t spare = fFrameOffsets.size() % streamCount;
  if (spare != 0 && problem.empty()) {
    problem = "last image incomplete: " + std::to_string(spare) + " of " +
              std::to_string(streamCount) + " stream frames";
  }

  fMode = Mode::kReading;
  fPeriod = getU32(fixed + 8);
  fStreams = std::move(streams);
  fFileSize = fileSize;
  fIndexEnd = offset;
  fProblem = problem;
  fPosition = -1;
  fCurrentStream = 0;
  fCursor = 0;
  return true;
}

bool OXVideo::getNextFrame(OXImage* pImage, bool /*pFlag*/) {
  if (!readRecord(pImage, fCursor, fCurrentStream)) return false;
  ++fCursor;
  return true;
}

bool OXVideo::getPrecedingFrame(OXImage* pImage, bool /*pFlag*/) {
  if (fCursor - 2 < 0 || !readRecord(pImage, fCursor - 2, fCurrentStream)) return false;
  --fCursor;
  return true;
}

bool OXVideo::getFrame(OXImage* pImage, int pIndex, int pStream, bool /*pFlag*/) {
  if (!readRecord(pImage, pIndex, pStream)) return false;
  fCurrentStream = pStream;
  fCursor = pIndex + 1;
  return true;
}

bool OXVideo::readRecordHeader(size_t pRecord) {
  const int64_t offset = fFrameOffsets[pRecord];
  if (!seekTo(offset)) return false;
  if (std::fread(fFrameHeader.data(), 1, fFrameHeader.size(), fFile) != fFrameHeader.size()) {
    fPosition = -1;
    return false;
  }
  fPosition = offset + kFrameHeaderSize;
  // The file was indexed, but it may have been rewritten since.
  return isFrameHeaderSane(fFrameHeader.data());
}

bool OXVideo::getFrameInfo(int pIndex, int pStream, FrameInfo& pInfo) {
  if (fMode != Mode::kReading) return false;
  if (pStream < 0 || pStream >= getNumberOfStreams()) return false;
  if (pIndex < 0 || pIndex >= getNumberOfImages()) return false;
  if (!readRecordHeader(static_cast<size_t>(pIndex) * fStreams.size() + pStream)) return false;
  pInfo.fSize = getI32(fFrameHeader.data() + kSizeAt);
  pInfo.fTimeStamp = static_cast<int64_t>(getU64(fFrameHeader.data() + kTimeStampAt));
  pInfo.fCameraId = static_cast<signed char>(fFrameHeader[kCameraIdAt]);
  return true;
}

bool OXVideo::readRecord(OXImage* pImage, int pIndex, int pStream) {
  if (fMode != Mode::kReading || pImage == nullptr) return false;
  if (pStream < 0 || pStream >= getNumberOfStreams()) return false;
  if (pIndex < 0 || pIndex >= getNumberOfImages()) return false;
  if (!readRecordHeader(static_cast<size_t>(pIndex) * fStreams.size() + pStream)) return false;
  const int size = getI32(fFrameHeader.data() + kSizeAt);

  // The stream's own format, or else the resolution whose size matches, in the stream's colours.
  const streamHeader& stream = fStreams[static_cast<size_t>(pStream)];
  int width = stream.width;
  int height = stream.height;
  if (frameBytes(width, height, stream.colorSpace) != size) {
    width = -1;
    for (int resolution = kQQVGA; resolution <= k4VGA && width < 0; ++resolution) {
      int w = 0;
      int h = 0;
      setSizeFromResolution(resolution, w, h);
      if (frameBytes(w, h, stream.colorSpace) == size) {
        width = w;
        height = h;
      }
    }
    if (width < 0) return false;
  }

  // External pixels are trusted to be large enough; owning images grow when needed.
  if (pImage->areDataExternal() ? pImage->fData == nullptr : !pImage->reserve(size)) return false;
  if (std::fread(pImage->fData, 1, static_cast<size_t>(size), fFile) != static_cast<size_t>(size)) {
    fPosition = -1;
    return false;
  }
  fPosition += size;
  pImage->setFormat(width, height, stream.colorSpace);
  pImage->fTimeStamp = static_cast<int64_t>(getU64(fFrameHeader.data() + kTimeStampAt));
  pImage->fCameraId = static_cast<signed char>(fFrameHeader[kCameraIdAt]);
  pImage->fLeftAngle = getFloat(fFrameHeader.data() + kLeftAt);
  pImage->fTopAngle = getFloat(fFrameHeader.data() + kTopAt);
  pImage->fRightAngle = getFloat(fFrameHeader.data() + kRightAt);
  pImage->fBottomAngle = getFloat(fFrameHeader.data() + kBottomAt);
  return true;
}

bool OXVideo::seekTo(int64_t pOffset) {
  if (fPosition == pOffset) return true;
  if (fseeko(fFile, static_cast<off_t>(pOffset), SEEK_SET) != 0) {
    fPosition = -1;
    return false;
  }
  fPosition = pOffset;
  return true;
}

bool OXVideo::closeVideo() {
  const bool flushed = closeFile();
  fMode = Mode::kClosed;
  fPeriod = 0;
  fStreams.clear();
  fFrameOffsets.clear();
  fFileSize = 0;
  fIndexEnd = 0;
  fProblem.clear();
  fRecordsWritten = 0;
  fPosition = -1;
  fCurrentStream = 0;
  fCursor = 0;
  return flushed;
}

bool OXVideo::closeFile() {
  if (fFile == nullptr) return true;
  // fclose flushes; its result is the only report of a failed final write.
  const bool closed = std::fclose(fFile) == 0;
  fFile = nullptr;
  if (!closed && fMode == Mode::kRecording) {
    ki::log::LogStream(ki::log::kLogError, kCategory, __FILE__, __func__, __LINE__)
        << "closing the recording failed: the last frames may be lost";
    return false;
  }
  return true;
}

int64_t OXVideo::getUnreadBytes() const {
  return fMode == Mode::kReading ? fFileSize - fIndexEnd : 0;
}

int OXVideo::getNumberOfImages() const {
  if (fStreams.empty()) return 0;
  const int64_t records =
      fMode == Mode::kRecording ? fRecordsWritten : static_cast<int64_t>(fFrameOffsets.size());
  const int64_t images = records / static_cast<int64_t>(fStreams.size());
  return images > std::numeric_limits<int>::max() ? std::numeric_limits<int>::max()
                                                  : static_cast<int>(images);
}

int OXVideo::getStreamResolution(int pStream) const {
  if (pStream < 0 || pStream >= getNumberOfStreams()) return -1;
  const streamHeader& stream = fStreams[static_cast<size_t>(pStream)];
  return getResolutionFromSize(stream.width, stream.height);
}

int OXVideo::getStreamColorSpace(int pStream) const {
  if (pStream < 0 || pStream >= getNumberOfStreams()) return -1;
  return fStreams[static_cast<size_t>(pStream)].colorSpace;
}

}  // namespace OX
