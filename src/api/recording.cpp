// Recordings on disk for the modern interface: the harness's reader, with the
// frames' pixels owned by the Recording.
#include <exception>

#include "clubtracker/measure.h"
#include "harness/frame_files.h"
#include "harness/offline.h"

namespace clubtracker {

namespace {

void TakeFrames(std::vector<ClubImage*>& from, std::vector<ClubImage>& to,
                std::vector<std::unique_ptr<unsigned char[]>>& storage) {
  to.reserve(from.size());
  for (ClubImage*& frame : from) {
    if (frame == nullptr) continue;
    storage.emplace_back(frame->pixels);  // the reader allocates pixels with new[]
    to.push_back(*frame);
    frame->pixels = nullptr;
  }
  FreeFrames(from);
}

}  // namespace

bool LoadRecording(const std::filesystem::path& recording, Recording& out, std::string* why,
                   uint64_t maxFramePixels) {
  try {
    LoadedRecording loaded;
    FrameLoadLimits limits;
    limits.maxPixels = maxFramePixels;
    if (!::LoadRecording(recording, loaded, why, limits)) return false;
    Recording read;
    ResolveRunFile(recording, read.runFile, nullptr);
    read.setting = loaded.setting;
    read.impactIndex = loaded.options.impactIndex;
    read.warnings = loaded.warnings;
    TakeFrames(loaded.cam1, read.cam1, read.storage);
    TakeFrames(loaded.cam2, read.cam2, read.storage);
    out = std::move(read);
    return true;
  } catch (const std::exception& e) {
    if (why != nullptr) *why = std::string("cannot load the recording: ") + e.what();
    return false;
  } catch (...) {
    if (why != nullptr) *why = "cannot load the recording";
    return false;
  }
}

}  // namespace clubtracker
