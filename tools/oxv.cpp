// oxv: recordings as files. A summary of .oxv recordings and video files, export to the video
// formats everyone plays, import of any video FFmpeg reads, and cut and cat of recordings.
#include <CLI/CLI.hpp>

#include <algorithm>
#include <iostream>
#include <limits>
#include <string>
#include <vector>

#include "kilog.h"
#include "media.h"
#include "progress.h"
#include "recordings.h"
#include "toolimage.h"
#include "toolsupport.h"

namespace {

using oxtools::UsageError;

constexpr const char* kProgram = "oxv";

const char* const kAbout =
    "Recordings (.oxv) as files: inspect them, export them to video files or PNG folders,\n"
    "import any video FFmpeg reads, cut and join them. Results appear under their final name\n"
    "only once complete. Exit status: 0 done, 1 bad command line, 2 bad input or failure\n"
    "(and for info: some file unreadable or damaged).";

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

int run(int pArgc, char** pArgv) {
  CLI::App app(kAbout, kProgram);
  app.require_subcommand(1, 1);
  app.footer(kExamples);
  bool verbose = false;
  app.add_flag("--verbose", verbose, "show FFmpeg's own messages too");

  std::vector<std::string> files;
  bool json = false;
  CLI::App* info = app.add_subcommand("info", "summarise recordings and video files");
  info->footer(
      "For each file (.oxv or any video): streams, cameras, size, colour space, frame count,\n"
      "first and last time stamp, duration, mean and jitter of the frame interval, file size.\n"
      "A damaged file is reported with the frames that are readable, and the exit status is 2.");
  info->add_option("FILE", files, "recordings or video files")->required();
  info->add_flag("--json", json, "one JSON array, an object per file");

  std::string input;
  std::string output;
  std::string range;
  int step = 1;
  int stream = 0;
  bool salvage = false;
  CLI::App* exporter = app.add_subcommand("export", "a recording to a video file or PNG files");
  exporter->footer(
      "Writes a recording as a video file whose format follows OUT's extension: .mp4 (H.264,\n"
      "else MPEG-4 part 2), .mkv (Ut Video, lossless), .avi (Motion JPEG), .y4m (raw YUV 4:2:2);\n"
      "or as PNG files and timestamps.csv in a folder (OUT ends with '/', is a folder or has no\n"
      "extension). Frame times come from the recording's time stamps.");
  exporter->add_option("FILE", input, "the .oxv recording")->required();
  exporter->add_option("OUT", output, "the video file or folder to write")->required();
  exporter->add_option("--range", range, "images A to B - 1 (A:B, A:, :B; default all)");
  exporter->add_option("--step", step, "one image in N (default 1)")->check(CLI::PositiveNumber);
  exporter->add_option("--stream", stream, "stream of a multi-stream recording (default 0)")
      ->check(CLI::NonNegativeNumber);
  exporter->add_flag("--salvage", salvage, "take the readable images of a damaged recording");

  std::string resolution;
  int camera = -1;
  CLI::App* importer = app.add_subcommand("import", "any video to a recording");
  importer->footer(
      "Converts any video FFmpeg reads into a recording of kYUV422 frames, as the device\n"
      "records them, at a resolution of the device's table. Frame times come from the video;\n"
      "the time of the first frame from an exported file's tag or its creation time, else 0.");
  importer->add_option("VIDEO", input, "the video file")->required();
  importer->add_option("OUT", output, "the .oxv recording to write")->required();
  importer->add_option("--resolution", resolution,
                       "qqvga, qvga, vga or 4vga (default: the nearest to the video's size)");
  importer->add_option("--camera", camera, "camera identifier of the frames (default 0)")
      ->check(CLI::Range(0, 127));

  CLI::App* cutter = app.add_subcommand("cut", "part of a recording to a new recording");
  cutter->footer("Copies images of a recording, with their time stamps, into a new recording.");
  cutter->add_option("FILE", input, "the .oxv recording")->required();
  cutter->add_option("OUT", output, "the .oxv recording to write")->required();
  cutter->add_option("--range", range, "images A to B - 1 (A:B, A:, :B; default all)");
  cutter->add_flag("--salvage", salvage, "take the readable images of a damaged recording");

  CLI::App* joiner = app.add_subcommand("cat", "recordings one after the other into one");
  joiner->footer(
      "Joins recordings with the same streams into one. A recording whose first time stamp is\n"
      "not after the last one so far is shifted to follow it, so time stamps keep rising.");
  joiner->add_option("FILE", files, "the recordings, then the .oxv recording to write")
      ->required()
      ->expected(2, std::numeric_limits<int>::max());
  joiner->add_flag("--salvage", salvage, "take the readable images of damaged recordings");

  const std::vector<std::string> commands = {"info", "export", "import", "cut", "cat", "formats"};
  if (pArgc > 1 && pArgv[1][0] != '-' &&
      std::find(commands.begin(), commands.end(), pArgv[1]) == commands.end()) {
    throw UsageError(std::string("unknown sub-command '") + pArgv[1] +
                     "': give info, export, import, cut, cat or formats");
  }
  bool formatsJson = false;
  CLI::App* formats = app.add_subcommand("formats", "the video formats export writes here");
  formats->footer(
      "For each extension: the codec this FFmpeg encodes it with (.mp4 takes H.264 where\n"
      "libx264 is there, else MPEG-4 part 2), whether pixels survive exactly, and how frame\n"
      "times are kept.");
  formats->add_flag("--json", formatsJson, "one JSON array, an object per extension");

  try {
    app.parse(pArgc, pArgv);
  } catch (const CLI::ParseError& error) {
    if (error.get_exit_code() == 0) return app.exit(error);
    throw UsageError(error.what());
  }
  oxmedia::showLibraryMessages(verbose);
  // OXVideo's refusals reach the user as oxv's own messages.
  if (!verbose) ki::log::setStderrThreshold(-1);

  if (info->parsed()) return ::info(files, json);
  if (formats->parsed()) return ::formats(formatsJson);
  if (exporter->parsed()) {
    oxmedia::ExportOptions options;
    options.fRange = rangeOf(range);
    options.fStep = step;
    options.fStream = stream;
    options.fSalvage = salvage;
    return withProgress("export", [&](const oxmedia::Progress& pProgress) {
      return oxmedia::exportRecording(input, output, options, pProgress);
    });
  }
  if (importer->parsed()) {
    oxmedia::ImportOptions options;
    if (!resolution.empty()) {
      options.fResolution = oxtools::parseResolution(resolution);
      if (options.fResolution < 0) {
        throw UsageError("--resolution " + resolution + ": give qqvga, qvga, vga or 4vga");
      }
    }
    options.fCamera = camera;
    return withProgress("import", [&](const oxmedia::Progress& pProgress) {
      return oxmedia::importVideo(input, output, options, pProgress);
    });
  }
  if (cutter->parsed()) {
    const oxmedia::Range cut = rangeOf(range);
    return withProgress("cut", [&](const oxmedia::Progress& pProgress) {
      return oxmedia::cutRecording(input, output, cut, salvage, pProgress);
    });
  }
  const std::vector<std::string> inputs(files.begin(), files.end() - 1);
  return withProgress("cat", [&](const oxmedia::Progress& pProgress) {
    return oxmedia::catRecordings(inputs, files.back(), salvage, pProgress);
  });
}

}  // namespace

int main(int argc, char** argv) {
  return oxtools::runTool(kProgram, [&] { return run(argc, argv); });
}
