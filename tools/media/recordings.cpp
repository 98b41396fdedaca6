// oxv's operations on recordings, on top of OXVideo (the .oxv reader and writer) and the FFmpeg
// wrapper of media.h.
#include "recordings.h"

#include <unistd.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <set>
#include <sstream>

#include "oximage.h"
#include "oxtypes.h"
#include "oxvideo.h"
#include "toolimage.h"

namespace oxmedia {

namespace fs = std::filesystem;

namespace {

const char* const kResolutionNames[] = {"qqvga", "qvga", "vga", "4vga"};

std::string resolutionName(int pWidth, int pHeight) {
  const int resolution = OX::getResolutionFromSize(pWidth, pHeight);
  return resolution >= 0 ? kResolutionNames[resolution] : "";
}

std::string lowerExtension(const std::string& pPath) {
  std::string extension = fs::path(pPath).extension().string();
  std::transform(extension.begin(), extension.end(), extension.begin(),
                 [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
  return extension;
}

// A folder of PNG files is asked for by a name ending in '/', an existing folder, or a name
// without extension.
bool isFolderTarget(const std::string& pPath) {
  return pPath.empty() || pPath.back() == '/' || fs::is_directory(pPath) ||
         fs::path(pPath).extension().empty();
}

bool startsWithMagic(const std::string& pPath) {
  std::ifstream in(pPath, std::ios::binary);
  char magic[4] = {};
  return in.read(magic, sizeof(magic)) && std::memcmp(magic, "OXVR", 4) == 0;
}

// The output under a temporary name beside the final one; removed unless committed.
class TempOutput {
 public:
  TempOutput(std::string pFinal, bool pFolder) : fFinal(std::move(pFinal)) {
    while (fFinal.size() > 1 && fFinal.back() == '/') fFinal.pop_back();
    const fs::path target(fFinal);
    const fs::path parent = target.parent_path().empty() ? fs::path(".") : target.parent_path();
    std::error_code error;
    if (!fs::is_directory(parent, error)) {
      throw MediaError("cannot write " + fFinal + ": no folder " + parent.string());
    }
    if (pFolder) {
      if (fs::exists(target, error) &&
          (!fs::is_directory(target, error) || !fs::is_empty(target, error))) {
        throw MediaError("cannot write PNG files to " + fFinal +
                         ": it exists and is not an empty folder");
      }
    } else if (fs::is_directory(target, error)) {
      throw MediaError("cannot write " + fFinal + ": it is a folder");
    }
    fPath = (parent / ("." + target.filename().string() + ".partial-" +
                       std::to_string(static_cast<long>(getpid()))))
                .string();
    fs::remove_all(fPath, error);
    if (pFolder && !fs::create_directory(fPath, error)) {
      throw MediaError("cannot create a folder beside " + fFinal + ": " + error.message());
    }
  }
  ~TempOutput() {
    if (fCommitted) return;
    std::error_code error;
    fs::remove_all(fPath, error);
  }
  TempOutput(const TempOutput&) = delete;
  TempOutput& operator=(const TempOutput&) = delete;

  const std::string& path() const { return fPath; }
  const std::string& finalPath() const { return fFinal; }
  void commit() {
    std::error_code error;
    fs::rename(fPath, fFinal, error);
    if (error) throw MediaError("cannot move the result to " + fFinal + ": " + error.message());
    fCommitted = true;
  }

 private:
  std::string fFinal;
  std::string fPath;
  bool fCommitted = false;
};

// Opens a recording for reading; a damaged one only with pSalvage.
void openRecording(OX::OXVideo& pVideo, const std::string& pPath, bool pSalvage) {
  if (!fs::exists(pPath)) throw MediaError("cannot read " + pPath + ": no such file");
  if (!pVideo.readVideoUpToDamage(pPath)) {
    throw MediaError(pPath + " is not a readable .oxv recording: " + pVideo.getProblem());
  }
  if (!pVideo.getProblem().empty() && !pSalvage) {
    throw MediaError(pPath + " is damaged (" + pVideo.getProblem() + "); " +
                     std::to_string(pVideo.getNumberOfImages()) +
                     " images are readable: add --salvage to take them");
  }
  if (pVideo.getNumberOfImages() == 0) throw MediaError(pPath + " holds no complete image");
}

// [first, end) of pRange within pCount images, or MediaError naming the file.
std::pair<int, int> resolve(const Range& pRange, int pCount, const std::string& pPath) {
  const int end = pRange.fEnd < 0 ? pCount : pRange.fEnd;
  if (pRange.fFirst >= pCount || end > pCount) {
    throw MediaError("range " + std::to_string(pRange.fFirst) + ":" +
                     (pRange.fEnd < 0 ? std::string() : std::to_string(pRange.fEnd)) +
                     " is beyond the end of " + pPath + ", which has " + std::to_string(pCount) +
                     " images (0 to " + std::to_string(pCount - 1) + ")");
  }
  if (end <= pRange.fFirst) throw MediaError("the range selects no image");
  return {pRange.fFirst, end};
}

// Reads image pIndex of stream pStream, or MediaError.
void readImage(OX::OXVideo& pVideo, OX::OXImage& pImage, int pIndex, int pStream,
               const std::string& pPath) {
  if (!pVideo.getFrame(&pImage, pIndex, pStream, false)) {
    throw MediaError("cannot read image " + std::to_string(pIndex) + " of " + pPath);
  }
}

bool layoutOf(int pColorSpace, Layout& pLayout) {
  switch (pColorSpace) {
    case OX::kYUV422:
      pLayout = Layout::kYUYV;
      return true;
    case OX::kRGB:
      pLayout = Layout::kRGB;
      return true;
    case OX::kBGR:
    case OX::kH2RGB:
      pLayout = Layout::kBGR;
      return true;
    case OX::kYUV:
      pLayout = Layout::kYUV;
      return true;
    case OX::kYYCbCr:
      pLayout = Layout::kYYCbCr;
      return true;
    case OX::kYuv:
      pLayout = Layout::kLuma;
      return true;
    default:
      return false;  // the hue spaces: through RGB, approximately
  }
}

std::string seconds(int64_t pMicroseconds) {
  char text[48];
  std::snprintf(text, sizeof(text), "%s%lld.%06lld s", pMicroseconds < 0 ? "-" : "",
                static_cast<long long>(std::llabs(pMicroseconds) / 1000000),
                static_cast<long long>(std::llabs(pMicroseconds) % 1000000));
  return text;
}

// " (2023-11-14 22:13:20.123456 UTC)" for a time stamp on the wall clock, else nothing.
std::string wallClock(int64_t pMicroseconds) {
  if (pMicroseconds < 946684800000000LL) return "";  // before 2000: not a wall-clock time
  const std::time_t whole = static_cast<std::time_t>(pMicroseconds / 1000000);
  std::tm parts = {};
  gmtime_r(&whole, &parts);
  char text[64];
  std::snprintf(text, sizeof(text), " (%04d-%02d-%02d %02d:%02d:%02d.%06d UTC)",
                parts.tm_year + 1900, parts.tm_mon + 1, parts.tm_mday, parts.tm_hour, parts.tm_min,
                parts.tm_sec, static_cast<int>(pMicroseconds % 1000000));
  return text;
}

std::string plural(int64_t pCount, const std::string& pWord) {
  return std::to_string(pCount) + " " + pWord + (pCount == 1 ? "" : "s");
}

FileSummary inspectRecording(const std::string& pPath, FileSummary pSummary) {
  pSummary.fRecording = true;
  pSummary.fContainer = "oxv";
  OX::OXVideo video;
  if (!video.readVideoUpToDamage(pPath)) {
    pSummary.fProblem = video.getProblem();
    return pSummary;
  }
  pSummary.fReadable = true;
  pSummary.fProblem = video.getProblem();
  for (int stream = 0; stream < video.getNumberOfStreams(); ++stream) {
    const OX::streamHeader& header = video.getStreams()[static_cast<size_t>(stream)];
    StreamSummary summary;
    summary.fWidth = header.width;
    summary.fHeight = header.height;
    summary.fColorSpace = header.colorSpace;
    summary.fCodec = "raw";
    std::vector<int64_t> times;
    std::set<int> cameras;
    OX::OXVideo::FrameInfo frame = {};
    for (int image = 0; image < video.getNumberOfImages(); ++image) {
      if (!video.getFrameInfo(image, stream, frame)) {
        pSummary.fProblem = "image " + std::to_string(image) + " cannot be read";
        break;
      }
      times.push_back(frame.fTimeStamp);
      cameras.insert(frame.fCameraId);
    }
    summary.fCameras.assign(cameras.begin(), cameras.end());
    summary.fTimes = timeStats(times);
    pSummary.fStreams.push_back(summary);
  }
  return pSummary;
}

}  // namespace

Range parseRange(const std::string& pText) {
  const size_t colon = pText.find(':');
  if (colon == std::string::npos || pText.find(':', colon + 1) != std::string::npos) {
    throw MediaError("--range " + pText + ": give A:B (images A to B - 1), A: or :B");
  }
  auto number = [&pText](const std::string& pPart, int pDefault) {
    if (pPart.empty()) return pDefault;
    if (pPart.size() > 9 || !std::all_of(pPart.begin(), pPart.end(), ::isdigit)) {
      throw MediaError("--range " + pText + ": " + pPart + " is not an image index");
    }
    return std::stoi(pPart);
  };
  Range range;
  range.fFirst = number(pText.substr(0, colon), 0);
  range.fEnd = number(pText.substr(colon + 1), -1);
  if (range.fEnd >= 0 && range.fEnd <= range.fFirst) {
    throw MediaError("--range " + pText + ": the end must come after the start");
  }
  return range;
}

int nearestResolution(int pWidth, int pHeight) {
  int best = OX::kQVGA;
  double bestDistance = 1e300;
  for (int resolution = OX::kQQVGA; resolution <= OX::k4VGA; ++resolution) {
    int width = 0;
    int height = 0;
    OX::setSizeFromResolution(resolution, width, height);
    const double distance = std::fabs(
        std::log(static_cast<double>(pWidth) * pHeight / (static_cast<double>(width) * height)));
    if (distance <= bestDistance) {  // a tie goes to the larger size
      best = resolution;
      bestDistance = distance;
    }
  }
  return best;
}

FileSummary inspect(const std::string& pPath) {
  FileSummary summary;
  summary.fPath = pPath;
  std::error_code error;
  if (!fs::is_regular_file(pPath, error)) {
    summary.fProblem = fs::exists(pPath, error) ? "not a file" : "no such file";
    return summary;
  }
  summary.fSize = static_cast<int64_t>(fs::file_size(pPath, error));
  if (startsWithMagic(pPath) || lowerExtension(pPath) == ".oxv") {
    return inspectRecording(pPath, summary);
  }
  try {
    const VideoSummary video = probeVideo(pPath);
    summary.fReadable = true;
    summary.fContainer = video.fContainer;
    summary.fProblem = video.fProblem;
    StreamSummary stream;
    stream.fWidth = video.fWidth;
    stream.fHeight = video.fHeight;
    stream.fCodec = video.fCodec;
    stream.fPixels =
        video.fPixelFormat + ", " + video.fColorRange + " range, " + video.fColorMatrix + " matrix";
    stream.fCameras = {video.fCamera};
    stream.fTimes = video.fTimes;
    summary.fStreams.push_back(stream);
  } catch (const MediaError& failure) {
    summary.fProblem = failure.what();
  }
  return summary;
}

std::string describe(const FileSummary& pSummary) {
  std::ostringstream out;
  out << pSummary.fPath << ": ";
  if (pSummary.fSize < 0) return out.str() + pSummary.fProblem + "\n";
  if (pSummary.fRecording) {
    out << ".oxv recording, ";
  } else if (pSummary.fReadable) {
    out << "video (" << pSummary.fContainer << "), ";
  }
  out << pSummary.fSize << " bytes\n";
  if (!pSummary.fReadable) return out.str() + "  unreadable: " + pSummary.fProblem + "\n";
  for (size_t i = 0; i < pSummary.fStreams.size(); ++i) {
    const StreamSummary& stream = pSummary.fStreams[i];
    const std::string resolution = resolutionName(stream.fWidth, stream.fHeight);
    out << "  stream " << i << ": " << stream.fWidth << "x" << stream.fHeight
        << (resolution.empty() ? "" : " (" + resolution + ")") << ", ";
    if (pSummary.fRecording) {
      out << oxtools::colorSpaceName(stream.fColorSpace) << " (" << stream.fColorSpace << "), raw";
    } else {
      out << stream.fCodec << ", " << stream.fPixels;
    }
    out << ", camera" << (stream.fCameras.size() == 1 ? " " : "s ");
    for (size_t c = 0; c < stream.fCameras.size(); ++c) out << (c ? "," : "") << stream.fCameras[c];
    const TimeStats& times = stream.fTimes;
    out << "\n    frames: " << times.fCount;
    if (times.fCount > 0) {
      out << ", first " << seconds(times.fFirst) << wallClock(times.fFirst) << ", last "
          << seconds(times.fLast);
    }
    out << "\n";
    if (times.fCount > 1) {
      char line[160];
      std::snprintf(line, sizeof(line),
                    "    duration: %.3f s; frame interval: mean %.2f ms (%.2f fps), jitter %.2f "
                    "ms\n",
                    static_cast<double>(times.duration()) / 1e6, times.fMeanInterval / 1e3,
                    times.fMeanInterval > 0 ? 1e6 / times.fMeanInterval : 0.0, times.fJitter / 1e3);
      out << line;
    }
  }
  if (!pSummary.fProblem.empty()) {
    const int64_t readable = pSummary.fStreams.empty() ? 0 : pSummary.fStreams[0].fTimes.fCount;
    out << "  damaged: " << pSummary.fProblem << "; " << plural(readable, "frame") << " readable\n";
  }
  return out.str();
}

nlohmann::json toJson(const FileSummary& pSummary) {
  nlohmann::json file = {{"file", pSummary.fPath},
                         {"kind", pSummary.fRecording ? "recording" : "video"},
                         {"container", pSummary.fContainer},
                         {"size", pSummary.fSize},
                         {"readable", pSummary.fReadable},
                         {"problem", nullptr},
                         {"streams", nlohmann::json::array()}};
  if (!pSummary.fProblem.empty()) file["problem"] = pSummary.fProblem;
  for (const StreamSummary& stream : pSummary.fStreams) {
    const std::string resolution = resolutionName(stream.fWidth, stream.fHeight);
    const TimeStats& times = stream.fTimes;
    nlohmann::json entry = {
        {"width", stream.fWidth},
        {"height", stream.fHeight},
        {"resolution", resolution.empty() ? nlohmann::json() : nlohmann::json(resolution)},
        {"codec", stream.fCodec},
        {"cameras", stream.fCameras},
        {"frames", times.fCount},
        {"first_timestamp_us", times.fCount > 0 ? nlohmann::json(times.fFirst) : nlohmann::json()},
        {"last_timestamp_us", times.fCount > 0 ? nlohmann::json(times.fLast) : nlohmann::json()},
        {"duration_us", times.duration()},
        {"interval_mean_us", times.fMeanInterval},
        {"interval_jitter_us", times.fJitter},
        {"fps", times.fMeanInterval > 0 ? 1e6 / times.fMeanInterval : 0.0}};
    if (pSummary.fRecording) {
      entry["colorspace"] = oxtools::colorSpaceName(stream.fColorSpace);
      entry["colorspace_id"] = stream.fColorSpace;
    } else {
      entry["pixels"] = stream.fPixels;
    }
    file["streams"].push_back(entry);
  }
  return file;
}

std::string exportRecording(const std::string& pInput, const std::string& pOutput,
                            const ExportOptions& pOptions, const Progress& pProgress) {
  // The output's kind first, so that an unknown extension fails before any work.
  const bool folder = isFolderTarget(pOutput);
  OutputFormat format;
  if (!folder) format = outputFormatFor(pOutput);
  if (pOptions.fStep < 1) throw MediaError("--step must be 1 or more");

  OX::OXVideo video;
  openRecording(video, pInput, pOptions.fSalvage);
  if (pOptions.fStream < 0 || pOptions.fStream >= video.getNumberOfStreams()) {
    throw MediaError(pInput + " has no stream " + std::to_string(pOptions.fStream) + " (it has " +
                     plural(video.getNumberOfStreams(), "stream") + ")");
  }
  const auto [first, end] = resolve(pOptions.fRange, video.getNumberOfImages(), pInput);
  std::vector<int> images;
  for (int i = first; i < end; i += pOptions.fStep) images.push_back(i);
  std::vector<int64_t> times;
  OX::OXVideo::FrameInfo info = {};
  for (int image : images) {
    if (!video.getFrameInfo(image, pOptions.fStream, info)) {
      throw MediaError("cannot read image " + std::to_string(image) + " of " + pInput);
    }
    times.push_back(info.fTimeStamp);
  }
  const OX::streamHeader& stream = video.getStreams()[static_cast<size_t>(pOptions.fStream)];
  const TimeStats stats = timeStats(times);

  TempOutput output(pOutput, folder);
  std::unique_ptr<VideoWriter> writer;
  std::ofstream index;
  OX::OXImage image(stream.width, stream.height, stream.colorSpace, false);
  oxtools::RgbImage rgb;
  for (size_t n = 0; n < images.size(); ++n) {
    readImage(video, image, images[n], pOptions.fStream, pInput);
    const int size = image.getSize();
    if (folder) {
      if (!oxtools::toRgb(image.fData, size, image.fWidth, image.fHeight, image.fColorSpace, rgb)) {
        throw MediaError("cannot show colour space " + std::to_string(image.fColorSpace) + " of " +
                         pInput + " as RGB");
      }
      char name[32];
      std::snprintf(name, sizeof(name), "frame_%06zu.png", n);
      oxtools::writePng(output.path() + "/" + name, rgb);
      if (n == 0) {
        index.open(output.path() + "/timestamps.csv");
        index << "file,image,timestamp_us,camera\n";
      }
      index << name << "," << images[n] << "," << image.fTimeStamp << ","
            << static_cast<int>(image.fCameraId) << "\n";
    } else {
      if (!writer) {
        WriterSettings settings;
        settings.fWidth = stream.width;
        settings.fHeight = stream.height;
        settings.fFrameRate = stats.fMeanInterval > 0 ? 1e6 / stats.fMeanInterval : 30.0;
        settings.fOrigin = image.fTimeStamp;
        settings.fCamera = image.fCameraId;
        settings.fThreads = pOptions.fThreads;
        writer.reset(new VideoWriter(output.path(), format, settings));
      }
      Frame frame;
      frame.fWidth = image.fWidth;
      frame.fHeight = image.fHeight;
      frame.fTime = image.fTimeStamp;
      frame.fData = image.fData;
      if (!layoutOf(image.fColorSpace, frame.fLayout)) {
        if (!oxtools::toRgb(image.fData, size, image.fWidth, image.fHeight, image.fColorSpace,
                            rgb)) {
          throw MediaError("cannot convert colour space " + std::to_string(image.fColorSpace) +
                           " of " + pInput);
        }
        frame.fLayout = Layout::kRGB;
        frame.fData = rgb.fPixels.data();
      }
      writer->write(frame);
    }
    if (pProgress) pProgress(static_cast<int64_t>(n + 1), static_cast<int64_t>(images.size()));
  }
  if (writer) writer->finish();
  if (index.is_open()) {
    index.close();
    if (!index) throw MediaError("cannot write the time stamps of " + pOutput);
  }
  output.commit();
  return "exported " + plural(static_cast<int64_t>(images.size()), "frame") + " of " +
         std::to_string(stream.width) + "x" + std::to_string(stream.height) + " to " +
         output.finalPath() +
         (folder ? " (PNG files, timestamps.csv)" : " (" + format.fDescription + ")");
}

std::string importVideo(const std::string& pInput, const std::string& pOutput,
                        const ImportOptions& pOptions, const Progress& pProgress) {
  if (lowerExtension(pOutput) != ".oxv") {
    throw MediaError("unknown extension '" + lowerExtension(pOutput) + "' of " + pOutput +
                     ": import writes an .oxv recording");
  }
  if (!fs::exists(pInput)) throw MediaError("cannot read " + pInput + ": no such file");
  if (startsWithMagic(pInput)) {
    throw MediaError(pInput + " is an .oxv recording already: use oxv cut to copy or trim it");
  }
  VideoReader reader(pInput, pOptions.fThreads);
  const int resolution = pOptions.fResolution >= 0
                             ? pOptions.fResolution
                             : nearestResolution(reader.width(), reader.height());
  int width = 0;
  int height = 0;
  OX::setSizeFromResolution(resolution, width, height);
  const int camera = pOptions.fCamera >= 0 ? pOptions.fCamera : reader.camera();
  const int64_t origin = reader.origin();
  const int64_t total = reader.frameCountHint();

  TempOutput output(pOutput, false);
  OX::OXVideo video;
  if (!video.recordVideo(output.path(), 0, {{width, height, OX::kYUV422, 8}})) {
    throw MediaError("cannot create " + pOutput + ": " + std::strerror(errno));
  }
  std::vector<unsigned char> pixels(frameBytes(Layout::kYUYV, width, height));
  int64_t frames = 0;
  int64_t time = 0;
  while (reader.next(pixels.data(), width, height, Layout::kYUYV, time)) {
    if (!video.write(reinterpret_cast<const char*>(pixels.data()), static_cast<int>(pixels.size()),
                     origin + time, static_cast<signed char>(camera), 0.0f, 0.0f, 0.0f, 0.0f)) {
      throw MediaError("cannot write " + pOutput + " (disk full?)");
    }
    ++frames;
    if (pProgress) pProgress(frames, std::max(total, frames));
  }
  if (frames == 0) throw MediaError(pInput + " holds no frame that can be decoded");
  if (!video.closeVideo()) throw MediaError("cannot write " + pOutput + " (disk full?)");
  output.commit();
  return "imported " + plural(frames, "frame") + " of " + pInput + " as " + std::to_string(width) +
         "x" + std::to_string(height) + " kYUV422 to " + pOutput;
}

namespace {

// Copies images [pFirst, pEnd) of every stream of pVideo into pOut, adding pShift to the time
// stamps; returns the last time stamp written.
int64_t copyImages(OX::OXVideo& pVideo, const std::string& pPath, int pFirst, int pEnd,
                   int64_t pShift, OX::OXVideo& pOut, const std::string& pOutPath,
                   OX::OXImage& pImage, int64_t& pDone, int64_t pTotal, const Progress& pProgress) {
  int64_t last = 0;
  for (int i = pFirst; i < pEnd; ++i) {
    for (int stream = 0; stream < pVideo.getNumberOfStreams(); ++stream) {
      readImage(pVideo, pImage, i, stream, pPath);
      last = pImage.fTimeStamp + pShift;
      if (!pOut.write(reinterpret_cast<const char*>(pImage.fData), pImage.getSize(), last,
                      pImage.fCameraId, pImage.fLeftAngle, pImage.fTopAngle, pImage.fRightAngle,
                      pImage.fBottomAngle)) {
        throw MediaError("cannot write " + pOutPath + " (disk full?)");
      }
    }
    ++pDone;
    if (pProgress) pProgress(pDone, pTotal);
  }
  return last;
}

void checkOxvOutput(const std::string& pOutput) {
  if (lowerExtension(pOutput) != ".oxv") {
    throw MediaError("unknown extension '" + lowerExtension(pOutput) + "' of " + pOutput +
                     ": the result is an .oxv recording");
  }
}

}  // namespace

std::string cutRecording(const std::string& pInput, const std::string& pOutput, Range pRange,
                         bool pSalvage, const Progress& pProgress) {
  checkOxvOutput(pOutput);
  OX::OXVideo video;
  openRecording(video, pInput, pSalvage);
  const auto [first, end] = resolve(pRange, video.getNumberOfImages(), pInput);
  TempOutput output(pOutput, false);
  OX::OXVideo out;
  if (!out.recordVideo(output.path(), video.getPeriod(), video.getStreams())) {
    throw MediaError("cannot create " + pOutput + ": " + std::strerror(errno));
  }
  OX::OXImage image(1, 1, OX::kYuv, false);
  int64_t done = 0;
  copyImages(video, pInput, first, end, 0, out, pOutput, image, done, end - first, pProgress);
  if (!out.closeVideo()) throw MediaError("cannot write " + pOutput + " (disk full?)");
  output.commit();
  return "cut images " + std::to_string(first) + " to " + std::to_string(end - 1) + " of " +
         pInput + " into " + pOutput;
}

std::string catRecordings(const std::vector<std::string>& pInputs, const std::string& pOutput,
                          bool pSalvage, const Progress& pProgress) {
  checkOxvOutput(pOutput);
  if (pInputs.empty()) throw MediaError("no recording to join");
  // All inputs are opened and checked before anything is written.
  std::vector<std::unique_ptr<OX::OXVideo>> videos;
  int64_t total = 0;
  for (const std::string& input : pInputs) {
    videos.emplace_back(new OX::OXVideo);
    openRecording(*videos.back(), input, pSalvage);
    total += videos.back()->getNumberOfImages();
    const std::vector<OX::streamHeader>& streams = videos.back()->getStreams();
    const std::vector<OX::streamHeader>& reference = videos.front()->getStreams();
    const bool same = streams.size() == reference.size() &&
                      std::equal(streams.begin(), streams.end(), reference.begin(),
                                 [](const OX::streamHeader& a, const OX::streamHeader& b) {
                                   return a.width == b.width && a.height == b.height &&
                                          a.colorSpace == b.colorSpace;
                                 });
    if (!same) {
      throw MediaError("cannot join " + input + " to " + pInputs.front() +
                       ": their streams differ in number, size or colour space");
    }
  }
  TempOutput output(pOutput, false);
  OX::OXVideo out;
  if (!out.recordVideo(output.path(), videos.front()->getPeriod(), videos.front()->getStreams())) {
    throw MediaError("cannot create " + pOutput + ": " + std::strerror(errno));
  }
  OX::OXImage image(1, 1, OX::kYuv, false);
  int64_t done = 0;
  int64_t last = 0;
  int64_t gap = 33333;  // one frame at 30 fps, until a recording tells better
  for (size_t i = 0; i < videos.size(); ++i) {
    OX::OXVideo& video = *videos[i];
    OX::OXVideo::FrameInfo head = {};
    OX::OXVideo::FrameInfo tail = {};
    const int count = video.getNumberOfImages();
    if (!video.getFrameInfo(0, 0, head) || !video.getFrameInfo(count - 1, 0, tail)) {
      throw MediaError("cannot read " + pInputs[i]);
    }
    const int64_t shift = (i > 0 && head.fTimeStamp <= last) ? last + gap - head.fTimeStamp : 0;
    last =
        copyImages(video, pInputs[i], 0, count, shift, out, pOutput, image, done, total, pProgress);
    if (count > 1 && tail.fTimeStamp > head.fTimeStamp) {
      gap = std::max<int64_t>(1, (tail.fTimeStamp - head.fTimeStamp) / (count - 1));
    }
  }
  if (!out.closeVideo()) throw MediaError("cannot write " + pOutput + " (disk full?)");
  output.commit();
  return "joined " + plural(static_cast<int64_t>(pInputs.size()), "recording") + " (" +
         plural(total, "image") + ") into " + pOutput;
}

}  // namespace oxmedia
