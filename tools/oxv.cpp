// oxv: recordings as files. A summary of .oxv recordings and video files, export to the video
// formats everyone plays, import of any video FFmpeg reads, and cut and cat of recordings.
#include <iostream>
#include <limits>
#include <string>
#include <vector>

#include "kilog.h"
#include "media.h"
#include "oxvideo.h"
#include "progress.h"
#include "recordings.h"
#include "toolcommandline.h"
#include "toolimage.h"
#include "toolsupport.h"

namespace {

using oxtools::UsageError;

constexpr const char* kProgram = "oxv";

const char* const kUsage =
    "oxv [--log-level N] COMMAND [options] ARGS... (COMMAND --help for more)";
const std::string kCommandNames = "info, export, import, cut, cat or formats";

const char* const kAbout =
    "Recordings (.oxv) as files: inspect them, export them to video files or PNG folders,\n"
    "import any video FFmpeg reads, cut and join them. Results appear under their final name\n"
    "only once complete. Exit status: 0 done, 1 bad command line, 2 bad input or failure\n"
    "(and for info: some file unreadable or damaged). --log-level 4 or more also shows\n"
    "FFmpeg's own messages.";

const char* const kExamples =
    "examples:\n"
    "  oxv info out/recording.oxv\n"
    "  oxv info --json a.oxv b.mp4\n"
    "  oxv export out/recording.oxv out/recording.mp4\n"
    "  oxv export --range 10:20 --step 2 out/recording.oxv frames/\n"
    "  oxv import --resolution qvga phone.mov phone.oxv\n"
    "  oxv cut --range 0:100 long.oxv start.oxv\n"
    "  oxv cat monday.oxv tuesday.oxv both.oxv";

oxmedia::Range rangeOf(const std::string& pText) {
  if (pText.empty()) return {};
  try {
    return oxmedia::parseRange(pText);
  } catch (const oxmedia::MediaError& error) {
    throw UsageError(error.what());
  }
}

// Runs a long operation with a progress bar; Ctrl-C or SIGTERM stops it and removes its output.
template <class Work>
int withProgress(const std::string& pLabel, Work pWork) {
  oxtools::installStopHandler();
  std::string account;
  {
    oxmedia::ProgressBar bar(pLabel);  // erased before the account is printed
    const oxmedia::Progress progress = [&bar](int64_t pDone, int64_t pTotal) {
      if (oxtools::stopRequested()) throw oxmedia::MediaError("stopped: nothing was written");
      bar.update(pDone, pTotal);
    };
    account = pWork(progress);
  }
  std::cout << account << "\n";
  return oxtools::kExitOk;
}

int info(const std::vector<std::string>& pFiles, bool pJson) {
  int status = oxtools::kExitOk;
  nlohmann::json all = nlohmann::json::array();
  for (const std::string& file : pFiles) {
    const oxmedia::FileSummary summary = oxmedia::inspect(file);
    if (!summary.fReadable || !summary.fProblem.empty()) status = oxtools::kExitFailure;
    if (pJson) {
      all.push_back(oxmedia::toJson(summary));
    } else {
      std::cout << oxmedia::describe(summary) << std::flush;
    }
  }
  if (pJson) std::cout << all.dump() << "\n";
  return status;
}

int formats(bool pJson) {
  nlohmann::json all = nlohmann::json::array();
  for (const char* extension : {".mp4", ".mkv", ".avi", ".y4m"}) {
    const oxmedia::OutputFormat format = oxmedia::outputFormatFor(extension);
    const std::string times = format.fTimeUnits == 1000000 ? "each frame's, to the microsecond"
                              : format.fTimeUnits == 1000  ? "each frame's, to the millisecond"
                                                           : "a constant rate (the mean)";
    if (pJson) {
      all.push_back({{"extension", extension},
                     {"encoder", format.fEncoder},
                     {"description", format.fDescription},
                     {"lossless", format.fLossless},
                     {"time_units", format.fTimeUnits}});
    } else {
      std::cout << extension << "  " << format.fEncoder << ": " << format.fDescription << "; "
                << (format.fLossless ? "lossless" : "lossy") << "; times: " << times << "\n";
    }
  }
  if (pJson) {
    std::cout << all.dump() << "\n";
  } else {
    std::cout << "a folder  PNG files and timestamps.csv; approximate for the hue colour spaces\n";
  }
  return oxtools::kExitOk;
}

// The command line, declared once: the sub-commands with their options.
struct Commands {
  explicit Commands(oxtools::CommandLine& pLine);

  oxtools::CommandLine& fLine;
  std::string fUnknown;  // a first word that names no sub-command
  std::vector<std::string> fFiles;
  std::string fInput;
  std::string fOutput;
  std::string fRange;
  std::string fResolution;
  int fStep = 1;
  int fStream = 0;
  int fCamera = -1;
  bool fJson = false;
  bool fSalvage = false;
  CLI::App* fInfo;
  CLI::App* fExport;
  CLI::App* fImport;
  CLI::App* fCut;
  CLI::App* fCat;
  CLI::App* fFormats;
};

Commands::Commands(oxtools::CommandLine& pLine) : fLine(pLine) {
  pLine.addLogOptions();
  pLine.require_subcommand(0, 1);
  // Not shown: it only lets an unknown sub-command be named in the error.
  pLine.add_option("COMMAND", fUnknown)->group("");

  fInfo = pLine.addCommand(
      "info", "summarise recordings and video files", "oxv info [--json] FILE...",
      "For each file (.oxv or any video): streams, cameras, size, colour space, frame count,\n"
      "first and last time stamp, duration, mean and jitter of the frame interval, file size.\n"
      "A damaged file is reported with the frames that are readable, and the exit status is 2.");
  fInfo->add_option("FILE", fFiles, "recordings or video files")
      ->required()
      ->multi_option_policy(CLI::MultiOptionPolicy::TakeAll);
  fInfo->add_flag("--json", fJson, "one JSON array, an object per file");

  fExport = pLine.addCommand(
      "export", "a recording to a video file or PNG files",
      "oxv export [--range A:B] [--step N] [--stream N] [--salvage] FILE OUT",
      "Writes a recording as a video file whose format follows OUT's extension: .mp4 (H.264,\n"
      "else MPEG-4 Visual), .mkv (Ut Video, lossless), .avi (Motion JPEG), .y4m (raw YUV 4:2:2);\n"
      "or as PNG files and timestamps.csv in a folder (OUT ends with '/', is a folder or has no\n"
      "extension). Frame times come from the recording's time stamps.");
  fExport->add_option("FILE", fInput, "the .oxv recording")->required();
  fExport->add_option("OUT", fOutput, "the video file or folder to write")->required();
  fExport->add_option("--range", fRange, "images A to B - 1, as A:B, A: or :B (default all)")
      ->type_name("RANGE");
  fExport->add_option("--step", fStep, "one image in N")
      ->type_name("N")
      ->capture_default_str()
      ->check(CLI::Range(1, std::numeric_limits<int>::max()).description(""));
  fExport->add_option("--stream", fStream, "stream of a multi-stream recording")
      ->type_name("N")
      ->capture_default_str()
      ->check(CLI::Range(0, OX::OXVideo::kMaxStreams - 1).description(""));
  fExport->add_flag("--salvage", fSalvage, "take the readable images of a damaged recording");

  fImport = pLine.addCommand(
      "import", "any video to a recording",
      "oxv import [--resolution RES] [--camera N] VIDEO OUT.oxv",
      "Converts any video FFmpeg reads into a recording of kYUV422 frames, as the device\n"
      "records them, at a resolution of the device's table. Frame times come from the video;\n"
      "the time of the first frame from an exported file's tag or its creation time, else 0.");
  fImport->add_option("VIDEO", fInput, "the video file")->required();
  fImport->add_option("OUT", fOutput, "the .oxv recording to write")->required();
  fImport
      ->add_option("--resolution", fResolution,
                   "qqvga, qvga, vga or 4vga (default: the nearest to the video's size)")
      ->type_name("RES");
  fImport->add_option("--camera", fCamera, "camera identifier of the frames (default 0)")
      ->type_name("N")
      ->check(CLI::Range(0, 127).description(""));

  fCut = pLine.addCommand(
      "cut", "part of a recording to a new recording",
      "oxv cut [--range A:B] [--salvage] FILE OUT.oxv",
      "Copies images of a recording, every stream, with their time stamps, cameras and angles,\n"
      "into a new recording. With --salvage and no range it repairs a damaged recording.");
  fCut->add_option("FILE", fInput, "the .oxv recording")->required();
  fCut->add_option("OUT", fOutput, "the .oxv recording to write")->required();
  fCut->add_option("--range", fRange, "images A to B - 1, as A:B, A: or :B (default all)")
      ->type_name("RANGE");
  fCut->add_flag("--salvage", fSalvage, "take the readable images of a damaged recording");

  fCat = pLine.addCommand(
      "cat", "recordings one after the other into one", "oxv cat [--salvage] FILE... OUT.oxv",
      "Joins recordings with the same streams into one. A recording whose first time stamp is\n"
      "not after the last one so far is shifted to follow it, so time stamps keep rising.");
  fCat->add_option("FILE", fFiles, "the recordings, then the .oxv recording to write")
      ->required()
      ->multi_option_policy(CLI::MultiOptionPolicy::TakeAll);
  fCat->add_flag("--salvage", fSalvage, "take the readable images of damaged recordings");

  fFormats = pLine.addCommand(
      "formats", "the video formats export writes here", "oxv formats [--json]",
      "For each extension: the codec this FFmpeg encodes it with (.mp4 takes H.264 where\n"
      "libx264 is there, else MPEG-4 Visual), whether pixels survive exactly, and how frame\n"
      "times are kept.");
  fFormats->add_flag("--json", fJson, "one JSON array, an object per extension");
}

int run(const Commands& pCommands) {
  const Commands& c = pCommands;
  if (c.fLine.get_subcommands().empty()) {
    if (c.fUnknown.empty()) throw UsageError("give a sub-command: " + kCommandNames);
    throw UsageError("unknown sub-command '" + c.fUnknown + "': give " + kCommandNames);
  }
  // OXVideo's refusals reach the user as oxv's own messages, unless logs were asked for.
  const bool logs = c.fLine.count("--log-level") > 0;
  if (!logs) ki::log::setStderrThreshold(ki::log::kLogSilent);
  oxmedia::showLibraryMessages(logs && ki::log::getStderrThreshold() >= ki::log::kLogInfo);

  if (c.fInfo->parsed()) return info(c.fFiles, c.fJson);
  if (c.fFormats->parsed()) return formats(c.fJson);
  if (c.fExport->parsed()) {
    oxmedia::ExportOptions options;
    options.fRange = rangeOf(c.fRange);
    options.fStep = c.fStep;
    options.fStream = c.fStream;
    options.fSalvage = c.fSalvage;
    return withProgress("export", [&](const oxmedia::Progress& pProgress) {
      return oxmedia::exportRecording(c.fInput, c.fOutput, options, pProgress);
    });
  }
  if (c.fImport->parsed()) {
    oxmedia::ImportOptions options;
    if (!c.fResolution.empty()) {
      options.fResolution = oxtools::parseResolution(c.fResolution);
      if (options.fResolution < 0) {
        throw UsageError("--resolution " + c.fResolution + ": give qqvga, qvga, vga or 4vga");
      }
    }
    options.fCamera = c.fCamera;
    return withProgress("import", [&](const oxmedia::Progress& pProgress) {
      return oxmedia::importVideo(c.fInput, c.fOutput, options, pProgress);
    });
  }
  if (c.fCut->parsed()) {
    const oxmedia::Range cut = rangeOf(c.fRange);
    return withProgress("cut", [&](const oxmedia::Progress& pProgress) {
      return oxmedia::cutRecording(c.fInput, c.fOutput, cut, c.fSalvage, pProgress);
    });
  }
  if (c.fFiles.size() < 2) throw UsageError("cat takes the recordings to join, then the output");
  const std::vector<std::string> inputs(c.fFiles.begin(), c.fFiles.end() - 1);
  return withProgress("cat", [&](const oxmedia::Progress& pProgress) {
    return oxmedia::catRecordings(inputs, c.fFiles.back(), c.fSalvage, pProgress);
  });
}

}  // namespace

int main(int argc, char** argv) {
  oxtools::CommandLine line(kProgram, kUsage, kAbout, kExamples);
  const Commands commands(line);
  return line.run(argc, argv, [&] { return run(commands); });
}
