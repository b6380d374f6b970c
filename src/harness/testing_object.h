// The testing object handed out by QTIFactoryFunc.
#pragma once

#include "clubtracker/QuarvelTestingInterface.h"

// One result entry with storage of its own.
std::unique_ptr<OfflineResultImage> CopyResultEntry(const ClubFrameResult& entry);

class QuarvelOstrin : public QuarvelTestingInterface {
 public:
  // Allocates its tracker; `tracker` stays null if that allocation fails.
  QuarvelOstrin();
  ~QuarvelOstrin() override;
  QuarvelOstrin(const QuarvelOstrin&) = delete;
  QuarvelOstrin& operator=(const QuarvelOstrin&) = delete;

  int RunOfflineTest(const std::filesystem::path& optionFilePath,
                     std::vector<std::unique_ptr<OfflineResultImage>>& outputList,
                     OfflineRunReport* report = nullptr) override;

  ClubTracker* tracker;  // owned; reused by every run
};
