// Exact morphology of 0/255 masks on bit planes (64 pixels a word).
//
// Every operation gives the pixels cv::morphologyEx gives with the kernel
// cv::getStructuringElement(shape, cv::Size(size, size), cv::Point(-1, -1)),
// the centre anchor, one iteration and the constant default border (erosion
// reads outside the image as 255, dilation as 0). A kernel row's ones must
// form one run holding the centre column, and the runs must nest by width
// (true of the rectangle, ellipse and cross kernels).
#pragma once

#include <cstdint>
#include <initializer_list>
#include <vector>

#include <opencv2/core.hpp>

struct MorphStep {
  int op;     // cv::MORPH_ERODE, MORPH_DILATE, MORPH_OPEN or MORPH_CLOSE
  int shape;  // cv::MORPH_RECT, MORPH_ELLIPSE or MORPH_CROSS
  int size;   // kernel width and height (odd)
};

class BitMask {
 public:
  // Packs a whole, non-empty CV_8UC1 matrix whose pixels are all 0 or 255.
  // Returns false (leaving the plane unusable) for anything else.
  bool Pack(const cv::Mat& mask);
  // Writes the plane as a 0/255 CV_8UC1 matrix (reallocated only when its
  // size or type differs).
  void Unpack(cv::Mat& mask) const;
  // The same for the part `box` of the plane (a rectangle inside it).
  void Unpack(cv::Mat& mask, const cv::Rect& box) const;
  // The box of the set pixels: what MaskBounds gives for the unpacked plane.
  cv::Rect Bounds() const;

  // Whether Apply runs `step` exactly (known operation, odd size, kernel of
  // nested row runs holding the centre).
  bool Supports(const MorphStep& step);
  void Apply(const MorphStep& step);
  // Dilates (erodes) by the disc of the offsets (dx, dy) with dx * dx + dy * dy
  // <= squaredRadius (nothing for a negative one), reading outside the plane
  // as 0 (as set).
  void DilateByDisc(int squaredRadius);
  void ErodeByDisc(int squaredRadius);
  // Copies the plane (not the scratch) into `other`.
  void CopyTo(BitMask& other) const;
  // Sets the outermost row and column on every side to 0.
  void ClearFrame();
  // Sets every 0 pixel that no 4-connected path of 0 pixels joins to the
  // plane's edge: the holes that a flood fill of the background from outside
  // the plane leaves.
  void FillHoles();
  bool Any() const;
  // The set pixels, row by row and left to right (cv::findNonZero's order).
  void SetPixels(std::vector<cv::Point>& points) const;

  int rows() const { return rows_; }
  int cols() const { return cols_; }

 private:
  // One kernel: for each row dy = -reach..reach the run [lo, hi] of column
  // offsets (lo > hi for a row without ones) and its index among the
  // distinct runs, which are sorted by width.
  struct Kernel {
    int shape = -1;
    int size = 0;
    int squared = -1;  // a disc's squared radius
    bool valid = false;
    bool uniform = false;  // every row has the same run
    std::vector<int> run;  // per kernel row: index into lo/hi, or -1
    std::vector<int> lo, hi;
  };

  // Rows top .. bottom - 1 and words left .. right - 1 hold every set pixel
  // of the plane (when known).
  struct Occupied {
    bool known = false;
    int top = 0, bottom = 0, left = 0, right = 0;
    bool Empty() const { return top >= bottom; }
    void Add(int y, int first, int end) {
      if (Empty()) {
        top = y;
        left = first;
        right = end;
      }
      bottom = y + 1;
      left = first < left ? first : left;
      right = end > right ? end : right;
    }
  };

  const Kernel& KernelOf(int shape, int size);
  // The runs of the kernel matrix k (kernel.size square, nonzero = in it).
  static void Parse(const cv::Mat& k, Kernel& kernel);
  const Kernel& DiscOf(int squaredRadius);
  void Morph(const Kernel& kernel, bool erode);
  void FindOccupied();
  // Writes `rows` rows of `words` words from `from` (rows `fromStride` words
  // apart) into the plane at row `top`, word `left`, and sets occupied_ from
  // them (the plane being zero elsewhere).
  void CopyBack(const uint64_t* from, int fromStride, int top, int left, int rows, int words);

  int rows_ = 0;
  int cols_ = 0;
  int words_ = 0;     // words a row
  uint64_t pad_ = 0;  // bits of a row's last word beyond the last column
  std::vector<uint64_t> bits_;
  Occupied occupied_;  // kept by the operations that clear pixels or fill holes
  std::vector<uint64_t> columns_;  // CopyBack: the OR of each column of words
  std::vector<uint64_t> planes_;  // buffers of the horizontal runs' planes
  std::vector<int> runPlane_;      // per run: its buffer
  std::vector<int> freeBuffers_;
  std::vector<uint64_t> column_;    // row windows of a uniform kernel
  std::vector<uint64_t> vertical_;  // the result of the rows of another kernel
  std::vector<uint64_t> open_, reach_, row_;  // FillHoles: the 0 pixels, those the edge reaches
  std::vector<Kernel> kernels_;
  static constexpr size_t kDiscsKept = 32;  // discs of the radii last asked for
  std::vector<Kernel> discs_;
};

// cv::morphologyEx for each step in turn, from src into dst. Runs on bit planes
// (a thread's arena, reused across calls) when src is a whole 0/255 CV_8UC1
// matrix, else calls cv::morphologyEx step by step.
void MorphologyChain(const cv::Mat& src, cv::Mat& dst, std::initializer_list<MorphStep> steps);

// The same chain through cv::morphologyEx, step by step.
void MorphologyChainLiteral(const cv::Mat& src, cv::Mat& dst,
                            std::initializer_list<MorphStep> steps);

// cv::boundingRect of a mask: the box of its nonzero pixels, Rect(0, 0, 0, 0)
// when there is none. CV_8UC1 masks are scanned eight pixels at a time.
cv::Rect MaskBounds(const cv::Mat& mask);

// The thread's bit plane arena (also used for the presence test).
BitMask& ThreadBitMask();
