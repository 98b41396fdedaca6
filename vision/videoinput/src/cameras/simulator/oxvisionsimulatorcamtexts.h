// The texts of the simulator camera, kept as data in one place. Several go to the categories of
// other camera families; they are kept as they are, since log readers filter on them.
#pragma once

namespace OX {
namespace simulatortexts {

constexpr const char* kCategory = "vision.oxvisionsimulatorcam";
// The refused resolution of xSetParam and the used-up output list of the plural get.
constexpr const char* kSimulatorCategory = "vision.oxvisionsimulator";
// The unknown camera model and the unreleased image of the plural get.
constexpr const char* kAtomCategory = "vision.oxvisionatomcam";

constexpr const char* kModuleName = "OXVideoDevice";
// The source file and line that the error of a failed start names. They are fixed texts, not
// where this code lives: clients compare the whole error, file and line included.
constexpr const char* kGrabberSource = "vision/videoinput/src/oxvisionsimulatorcam";
constexpr int kGrabberLine = 141;

// Object.
constexpr const char* kUnknownModel = " unknow camera model ID.";
constexpr const char* kCameraOutOfRange = ": camera index out of range: ";

// Push.
constexpr const char* kUnknownResolution = "Unknown resolution from simulator!";
constexpr const char* kWrongDataSize = "SIMCAM_ERROR_WRONGDATASIZE";
constexpr const char* kImageUpdated = "Image updated";
constexpr const char* kStringTooLong = "xPutImage: string larger than the input buffer, refused";
constexpr const char* kNotBinaryNorString = "xPutImage: Buffer is not a binary nor a string";
constexpr const char* kMemcopyFailed = "xPutImage: memcopy failed";

// Resampling.
constexpr const char* kNativeUnsupported = "Simulator native resolution unsupported";

// Raw acquisition.
constexpr const char* kNotReleasedHead = ": Previous image for subscriber ";
constexpr const char* kNotReleasedTail = " was  not released. Returning null image.";
constexpr const char* kPreviousImage = "Previous image ";
constexpr const char* kPreviousImageTail = " was not released";
constexpr const char* kNoImageHead = ": Could not get image for subscriber ";
constexpr const char* kNoImageTail = ". Check that the simulator is running.";
constexpr const char* kResizingError = "): resizing error";
constexpr const char* kNoRawBuffer = "): no available raw buffer for writing image";
constexpr const char* kNoOutputBuffer = "): error trying to find available buffer.";
constexpr const char* kNoOutputBufferPluralHead = "OXVisionVideoInput::xGetDirectRawImages(";
constexpr const char* kNoOutputBufferPlural = ") : error trying to find available buffer.";

// Parameters and grabber.
constexpr const char* kCameraModule = "Camera";
constexpr const char* kBadParameter = "Bad input parameter ID";
constexpr const char* kInvalidResolution = "Invalid camera resolution input parameter.";
constexpr const char* kInvalidCamera = "Invalid camera parameter input reference.";
constexpr const char* kSameCamera = "Same camera selected.";
constexpr const char* kVideoInputModule = "OXVideoInput";
constexpr const char* kInvalidParameter = "Invalid parameter input reference.";
constexpr const char* kCantOpen = "Can't open video file.";
constexpr const char* kErrorClosing = "Error closing file.";

}  // namespace simulatortexts
}  // namespace OX
