// What oxv does with recordings: inspection of .oxv and video files, export to video files and
// PNG folders, import of any video FFmpeg reads, cut and cat. Every output is written under a
// temporary name beside the final one and renamed at the end, so that a failure or a stop leaves
// nothing under the final name. Bad input throws MediaError with a message for people.
#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "media.h"

namespace oxmedia {

// Called with the frames done and the frames in all (0 when unknown) as the work goes on. It may
// throw to stop the work; the output is then removed.
using Progress = std::function<void(int64_t pDone, int64_t pTotal)>;

// Images [fFirst, fEnd) of a recording; fEnd -1: to the end.
struct Range {
  int fFirst = 0;
  int fEnd = -1;
};
// "A:B", "A:", ":B" or ":" with A and B image indices; throws MediaError for anything else.
Range parseRange(const std::string& pText);

// The resolution of the device's table nearest to a frame size, by area.
int nearestResolution(int pWidth, int pHeight);

struct StreamSummary {
  int fWidth = 0;
  int fHeight = 0;
  int fColorSpace = -1;  // recordings: the stream's colour space
  std::string fCodec;    // "raw" for recordings
  std::string fPixels;   // videos: pixel format, range and matrix
  std::vector<int> fCameras;
  TimeStats fTimes;
};

struct FileSummary {
  std::string fPath;
  bool fRecording = false;  // an .oxv file (or one that claims to be)
  bool fReadable = false;   // false: nothing in it can be read; fProblem says why
  std::string fContainer;   // "oxv" or libavformat's name
  int64_t fSize = -1;
  std::vector<StreamSummary> fStreams;
  // What is wrong with the file: a frame cut short, damage, a read error; empty when whole.
  std::string fProblem;
};
// Never throws for what a file holds: problems end up in fProblem.
FileSummary inspect(const std::string& pPath);
std::string describe(const FileSummary& pSummary);
nlohmann::json toJson(const FileSummary& pSummary);

struct ExportOptions {
  Range fRange;
  int fStep = 1;
  int fStream = 0;
  bool fSalvage = false;  // take the readable images of a damaged recording
  int fThreads = 0;
};
// To a video file whose format follows pOutput's extension, or to a folder of PNG files (pOutput
// ends with '/', is a folder or has no extension). Returns a one-line account.
std::string exportRecording(const std::string& pInput, const std::string& pOutput,
                            const ExportOptions& pOptions, const Progress& pProgress);

struct ImportOptions {
  int fResolution = -1;  // -1: the nearest to the video's size
  int fCamera = -1;      // -1: the camera an export stored, else 0
  int fThreads = 0;
};
// Any video FFmpeg reads to an .oxv recording of kYUV422 frames, as the device records them.
std::string importVideo(const std::string& pInput, const std::string& pOutput,
                        const ImportOptions& pOptions, const Progress& pProgress);

// Images of pRange, every stream, to a new recording; time stamps, cameras and angles kept.
std::string cutRecording(const std::string& pInput, const std::string& pOutput, Range pRange,
                         bool pSalvage, const Progress& pProgress);
// Recordings with the same streams, one after the other. A recording whose first time stamp
// is not after the last one written is shifted to follow it, one mean interval later.
std::string catRecordings(const std::vector<std::string>& pInputs, const std::string& pOutput,
                          bool pSalvage, const Progress& pProgress);

}  // namespace oxmedia
