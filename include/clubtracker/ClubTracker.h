// clubtracker: club-head speed and spin axis of a golf swing seen by two
// synchronised high-speed cameras.
//
// A host obtains a tracker with AllocateFunc(), configures it with
// SetTrackerSetting() and calls Find() once per swing with the frames of both
// cameras. Everything the call measured is in the ClubTrackerResult; Find()
// itself always returns 0.
//
// Ownership rules
// - ClubImage records and their pixels belong to the caller; the tracker
//   never frees or modifies them.
// - ClubTrackerResult owns its `frames` array, each entry's BGR buffer
//   `image.pixels` and its `rawPixels`. Find() replaces the array (freeing the
//   old one and every buffer in it); the result's destructor frees whatever it
//   still holds. Results can be moved but not copied.
// - The records' special members are defined in this header (see
//   ClubTrackerRecords.h): a host that loads the library with dlopen() and
//   does not link it can still create and destroy results.
// - A tracker owns no resource: copies share nothing but the log target.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include <opencv2/core.hpp>

#include "imageprocess/ImageProcess.h"

#define CLUBTRACKER_API __attribute__((visibility("default")))
#define CLUBTRACKER_LOCAL __attribute__((visibility("hidden")))

// Receives every log line (its own copy) and the setting's logContext.
typedef void (*ClubTrackerLogCallback)(std::wstring, void*);

// Configuration of a tracker. Plain, trivially copyable; stored by value.
struct ClubTrackerSetting {
  int32_t roiX;
  int32_t roiY;
  int32_t roiWidth;   // 0 = whole frame
  int32_t roiHeight;  // 0 = whole frame
  int32_t timeStampIntervalBeforeImpact;
  int32_t timeStampIntervalAfterImpact;
  int32_t axisIndex;      // world coordinate ranking spin-axis hypotheses
  int32_t axisNormIndex;  // world coordinate the axis direction must carry
  double cam1Intrinsic[9];   // 3x3 row-major
  double cam1Extrinsic[12];  // 3x4 [R|t] row-major, world to camera
  double cam2Intrinsic[9];
  double cam2Extrinsic[12];
  ClubTrackerLogCallback logCallback;  // null = no logging
  void* logContext;                    // passed back to logCallback
};

// Writes the defaults: ROI 0, both intervals 2000, axisIndex 1, axisNormIndex 2,
// calibration all zero, logCallback null. logContext is left as it is: a host
// that sets logCallback sets logContext too.
CLUBTRACKER_API void InitClubTrackerSetting(ClubTrackerSetting& setting);

// One captured frame, owned by the caller.
struct ClubImage {
  uint32_t width;
  uint32_t height;
  uint32_t bytesPerChannel;  // must be 1
  uint32_t channels;         // 1 = grey, more = BGR(A)
  unsigned char* pixels;     // width * height * bytesPerChannel * channels, packed rows
  // Metadata block, copied verbatim through every stage.
  int32_t sensorOffsetX;  // frame's top-left pixel on the full sensor
  int32_t sensorOffsetY;
  uint32_t afterImpact;   // 1 = captured after the impact
  uint64_t timeStamp;     // camera ticks
  float ballX;            // ball centre in the frame; (0, 0) = not given
  float ballY;
  float ballRadius;       // 0 = not given
};

// One entry of ClubTrackerResult::frames. Not copyable: it owns rawPixels.
struct CLUBTRACKER_API ClubFrameResult {
  int32_t camera;       // 0 = camera 1, 1 = camera 2
  int32_t frameNumber;  // index in the combined list
  int32_t hasShaft;     // 1 when an inlier of the spin axis refers to the frame
  int32_t spare;
  float head[3];        // 3D head point (camera 2: projected pixel x, y, 1)
  ClubImage image;      // annotated BGR copy of the candidate image + metadata
  unsigned char* rawPixels;  // the frame's own 8-bit pixels, image.width * image.height

  ClubFrameResult();
  ~ClubFrameResult();  // releases rawPixels (image.pixels belongs to the result)
  ClubFrameResult(const ClubFrameResult&) = delete;
  ClubFrameResult& operator=(const ClubFrameResult&) = delete;
};

// Outcome of one swing. Start it empty (the constructor does); Find() fills it.
struct CLUBTRACKER_API ClubTrackerResult {
  int32_t frameCount;
  ClubFrameResult* frames;  // array new; camera 1's frames first
  float headRadius;         // pivot to ball distance
  float angularVelocity;    // radians per time-stamp unit
  float axisDirection[3];
  float axisPosition[3];
  int32_t speedFrameFrom;
  int32_t speedFrameTo;
  double clubHeadSpeed;     // world units per time-stamp unit; 0.0 = none

  ClubTrackerResult();
  ~ClubTrackerResult();
  ClubTrackerResult(ClubTrackerResult&& other) noexcept;
  ClubTrackerResult& operator=(ClubTrackerResult&& other) noexcept;
  ClubTrackerResult(const ClubTrackerResult&) = delete;
  ClubTrackerResult& operator=(const ClubTrackerResult&) = delete;

  // Frees `frames` with every pixel buffer in it; frameCount becomes 0.
  void ReleaseFrames();
};

struct PreprocessedImage;
struct CandidateAreaImage;
struct ClubSpinAxis3D;
struct ClubTrackerTestAccess;

class CLUBTRACKER_API ClubTracker : public ImageProcess {
 public:
  ClubTracker();
  explicit ClubTracker(ClubTrackerSetting setting);
  ClubTracker(const ClubTracker& other);
  ClubTracker& operator=(const ClubTracker& other);
  virtual ~ClubTracker();

  // Replaces the whole setting; nothing else changes.
  virtual void SetTrackerSetting(ClubTrackerSetting setting);

  // Measures one swing. timeLimit in whole seconds, 0 = none. Always returns 0;
  // the outcome is the content of `result` and the log.
  virtual int Find(std::vector<ClubImage*> cam1Images,
                   std::vector<ClubImage*> cam2Images, ClubTrackerResult& result,
                   unsigned int timeLimit);

  // Club-head speed by tracking the head with templates in both cameras.
  // Writes 0.0 when it finds none. Find() falls back to it.
  virtual int FindbyTemplate(std::vector<ClubImage*> cam1Images,
                             std::vector<ClubImage*> cam2Images,
                             double& clubHeadSpeed);

  ClubTrackerSetting setting;
  double referencePoint[3];  // the ball's 3D position, kept between calls

 private:
  friend struct ClubTrackerTestAccess;
  friend struct HeadAreaTask;  // body of the parallel head-size loop

  CLUBTRACKER_LOCAL int Preprocessing(ClubImage* source, PreprocessedImage* target);
  CLUBTRACKER_LOCAL int FindCandidateArea(const std::vector<PreprocessedImage*>& frames,
                                          std::vector<CandidateAreaImage*>& candidates);
  CLUBTRACKER_LOCAL int GetLineThreshold(CandidateAreaImage* candidate, float divisor);
  CLUBTRACKER_LOCAL int ExtractCandidates(CandidateAreaImage* candidate, int voteThreshold);
  CLUBTRACKER_LOCAL int ExtractDriverHeadArea(CandidateAreaImage* candidate, int& thickness);
  CLUBTRACKER_LOCAL int DeleteDriverHeadArea(CandidateAreaImage* candidate, int radius);
  CLUBTRACKER_LOCAL int SelectSpinAxisInliers(const std::vector<CandidateAreaImage*>& cam1Areas,
                                              const std::vector<CandidateAreaImage*>& cam2Areas,
                                              std::vector<ClubSpinAxis3D>& axes);
  CLUBTRACKER_LOCAL int FindClubSpinAxis(const std::vector<CandidateAreaImage*>& cam1Areas,
                                         const std::vector<CandidateAreaImage*>& cam2Areas,
                                         ClubSpinAxis3D& axis);
  CLUBTRACKER_LOCAL int FindShaftAndHead(const std::vector<CandidateAreaImage*>& cam1,
                                         const std::vector<CandidateAreaImage*>& cam2,
                                         const ClubSpinAxis3D& axis, ClubTrackerResult& result);

  // Alternative head routine (nothing in the library calls it): given a result
  // whose axisPosition and axisDirection hold a spin axis, tracks the club head
  // through the before-impact frames of both cameras, measures its angular
  // velocity about that axis and fills angularVelocity, headRadius and
  // clubHeadSpeed. Returns 1 when a speed was measured.
  int FindHeadAndCalculate(const std::vector<ClubImage*>& cam1Images,
                           const std::vector<ClubImage*>& cam2Images,
                           ClubTrackerResult& result);

  // Formats a printf-style line and hands it to the log callback, if any.
  CLUBTRACKER_LOCAL void Log(const char* format, ...) const
      __attribute__((format(printf, 2, 3)));
};

// Creates a tracker with the default setting; release it with delete.
extern "C" CLUBTRACKER_API ClubTracker* AllocateFunc();

// Hosts get the records' special members inline; the library itself (and
// anything linking its static form) defines them once, out of line.
#ifndef CLUBTRACKER_RECORDS_OUT_OF_LINE
#include "clubtracker/ClubTrackerRecords.h"
#endif
