// Per-camera image analysis: the pieces of the shaft-line and driver-head
// stages that the Find driver calls directly.
#pragma once

#include <cstdint>
#include <vector>

#include <opencv2/core.hpp>

#include "analysis/binary_morphology.h"
#include "analysis/hough.h"
#include "tracker/records.h"

// Morphology and Canny edge map of a candidate mask, as the shaft-line
// extraction uses them. Independent of the Hough vote threshold, so one edge
// map serves every threshold tried for a frame. An empty mask gives an empty
// edge map.
void ComputeShaftEdges(const cv::Mat& mask, cv::Mat& edges);

// The rest of the shaft-line extraction given the edge map of the candidate's
// mask: Hough transform, near-horizontal lines dropped, rho shifted to
// full-sensor coordinates, lines appended to candidate->lines. Returns 0 for a
// null candidate or a vote threshold not greater than 0, else 1.
int ExtractCandidatesFromEdges(CandidateAreaImage* candidate, const cv::Mat& edges,
                               int voteThreshold);

// The edge map of ComputeShaftEdges limited to the cleaned mask's bounding
// box widened by Canny's reach: returns the box and its edges (zero outside
// it). An empty box (empty edges) when the cleaned mask has no pixel or the
// mask is empty or not 8-bit grey.
cv::Rect ComputeShaftEdgeBox(const cv::Mat& mask, cv::Mat& edges);

// cv::Canny(src, edges, 30, 40, 3, true) of a mask whose pixels are all 0 or
// 255 (the shaft-line settings), without its general hysteresis.
void BinaryCanny(const cv::Mat& src, cv::Mat& edges);

// cv::medianBlur(src, dst, 3), to the bit; CV_8UC1 frames by sorted columns a
// row at a time, others through the library. dst may be src.
void MedianBlur3(const cv::Mat& src, cv::Mat& dst);

// The Hough votes of ComputeShaftEdges' edge map, made once per frame, for
// vote thresholds of at least `floor`. With `plane`, a 0/255 mask is also
// written into it as a bit plane (the one packed for the cleaning anyway);
// returns whether it was.
bool ComputeShaftVotes(const cv::Mat& mask, HoughVotes& votes, int floor = 0,
                       BitMask* plane = nullptr);

// ExtractCandidatesFromEdges with the lines read from the frame's votes: the
// same lines in the same order. 0 also when the threshold is below the votes'
// floor (votes made for higher thresholds only).
int ExtractCandidatesFromVotes(CandidateAreaImage* candidate, const HoughVotes& votes,
                               int voteThreshold);

class FrameBuffers;

// ClubTracker::FindCandidateArea with the masks in buffers of `buffers`, each
// frame's image given back to it as soon as the last record that reads it is
// made: the same records, and no frame image is left once it returns.
int FindCandidateAreaReleasingFrames(ClubTracker& tracker,
                                     const std::vector<PreprocessedImage*>& frames,
                                     std::vector<CandidateAreaImage*>& candidates,
                                     FrameBuffers& buffers);

// Whether ClubTracker::Preprocessing filters `source` as it lies, into an
// image of the frame's size (else it converts or cuts a copy first, or
// refuses the frame).
bool PreprocessesWholeFrame(const ClubImage* source, const ClubTrackerSetting& setting);

// The change mask of a frame against its two references (8-bit grey, one
// size): 255 where the frame differs from both by 2 grey levels or more, else
// 0, written into `mask`. Returns the number of set pixels.
int64_t ChangeMask(const cv::Mat& image, const cv::Mat& earlier, const cv::Mat& later,
                   cv::Mat& mask);

// RefineCandidateMask that may leave the refined mask packed: when the bit
// planes run the whole test and `packed` is given, the refined mask is
// copied there (not written to refinedMask) and the answer is true;
// otherwise it is written to refinedMask and the answer is false.
bool RefineCandidateMaskPacked(const cv::Mat& candidateMask, BitMask* packed,
                               cv::Mat& refinedMask, int* blobPresent);

// The refined masks of one camera's frames: frame k's is the bit plane
// packed[k] when isPacked[k] is set, else the matrix masks[k]. Kept packed,
// a swing's refined masks take an eighth of the pixels' bytes.
struct RefinedMasks {
  std::vector<BitMask> packed;
  std::vector<char> isPacked;
  std::vector<cv::Mat> masks;

  // Frame k's refined mask: masks[k], or its bit plane unpacked into
  // `scratch` (which the answer then shares).
  const cv::Mat& Mask(size_t k, cv::Mat& scratch) const;
};

// Driver-head thickness of every frame of one camera, measured in parallel on
// the refined masks (refinedMasks[k] belongs to candidates[k]). sizes is
// resized to candidates.size(); sizes[k] is the thickness of frame k (0 when
// the frame could not be measured). Each record's headX, headY are written;
// its own mask is left as it was. A packed mask is unpacked into the
// measuring thread's buffer when its frame is measured.
void MeasureHeadSizes(ClubTracker& tracker, const std::vector<CandidateAreaImage*>& candidates,
                      const std::vector<cv::Mat>& refinedMasks, std::vector<int>& sizes);
void MeasureHeadSizes(ClubTracker& tracker, const std::vector<CandidateAreaImage*>& candidates,
                      const RefinedMasks& refinedMasks, std::vector<int>& sizes);
