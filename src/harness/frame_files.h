// Reading a camera folder's frame files defensively: only regular files of a
// sane size are opened (without blocking), an image's size is read from its
// header before it is decoded, and every file left out is named in a warning.
#pragma once

#include <cstdint>
#include <filesystem>
#include <string>
#include <vector>

#include "clubtracker/ClubTracker.h"

// Largest frame, in pixels, that the loader decodes unless told otherwise.
inline constexpr uint64_t kDefaultMaxFramePixels = 16'000'000;

struct FrameLoadLimits {
  uint64_t maxPixels = kDefaultMaxFramePixels;  // width x height of one frame
  uint64_t maxFileBytes = 512ull << 20;         // bytes of one frame file
};

// The entries of `folder` that are not folders, in byte-wise name order (the
// recording tool's names are fixed-width time stamps, so this is capture
// order). Empty when the folder cannot be listed.
std::vector<std::filesystem::path> FilesOf(const std::filesystem::path& folder);

// Whether the name ends in an image format's extension (any case). Such a file
// is a frame file: it counts for ImpactIndex even when it does not decode.
bool HasImageExtension(const std::filesystem::path& file);

// Width and height from the header of a PNG, BMP, JPEG or PNM file held in
// `bytes`; false for other formats or a header too short to tell.
bool ImageSizeFromHeader(const std::string& bytes, uint64_t& width, uint64_t& height);

// Reads a regular file of at most `maxBytes` into `bytes` without blocking on a
// FIFO or device. False with the reason in `problem` ("not a regular file ...",
// "N bytes, more than ...", "cannot be opened: ...").
bool ReadRegularFile(const std::filesystem::path& path, uint64_t maxBytes, std::string& bytes,
                     std::string& problem);

// Loads the frames of one camera folder, in byte-wise name order. A file that
// decodes is a frame; a file with an image extension that cannot be read or
// decoded, or is over a limit, is skipped with a warning naming it; other
// files (option files, notes) are skipped silently. Frames whose size differs
// from the camera's first frame, and time stamps that do not increase, are
// warned about with their file names. afterImpact is 1 from the
// ImpactIndex-th frame FILE on, counting skipped frame files too, so a damaged
// file does not shift the impact. Appends to `warnings` when given.
std::vector<ClubImage*> LoadCameraFrames(const std::filesystem::path& folder, int impactIndex,
                                         const FrameLoadLimits& limits,
                                         std::vector<std::string>* warnings);
