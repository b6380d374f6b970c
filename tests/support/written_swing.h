// A rendered swing written as a recording into a fresh folder; tests keep one
// for the whole program.
#pragma once

#include <filesystem>

#include "support/temp_folder.h"
#include "synth/swing.h"

struct WrittenSwing {
  TempFolder folder{"clubtracker-swing"};
  synth::Recording recording;
  std::filesystem::path path = folder.path / "swing";
  explicit WrittenSwing(const synth::SwingScene& scene) : recording(synth::Render(scene)) {
    synth::WriteRecording(recording, path);
  }
};
