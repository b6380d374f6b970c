// Camera folders: listing, safe reading, header sizes and the frame loader.
#include "harness/frame_files.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <limits>
#include <memory>
#include <system_error>

#include <opencv2/imgcodecs.hpp>

#include "harness/offline.h"

namespace fs = std::filesystem;

namespace {

// A descriptor closed on every way out.
struct Descriptor {
  int fd = -1;
  ~Descriptor() {
    if (fd >= 0) ::close(fd);
  }
};

uint32_t BigEndian32(const std::string& b, size_t at) {
  uint32_t v = 0;
  for (size_t i = 0; i < 4; ++i) v = (v << 8) | static_cast<unsigned char>(b[at + i]);
  return v;
}

uint32_t LittleEndian32(const std::string& b, size_t at) {
  uint32_t v = 0;
  for (size_t i = 4; i-- > 0;) v = (v << 8) | static_cast<unsigned char>(b[at + i]);
  return v;
}

bool JpegSize(const std::string& b, uint64_t& width, uint64_t& height) {
  size_t i = 2;
  while (i + 9 < b.size()) {
    if (static_cast<unsigned char>(b[i]) != 0xFF) return false;
    const unsigned marker = static_cast<unsigned char>(b[i + 1]);
    if (marker == 0xFF) {  // fill byte
      ++i;
      continue;
    }
    const size_t length = (static_cast<unsigned char>(b[i + 2]) << 8) | static_cast<unsigned char>(b[i + 3]);
    const bool frameHeader = marker >= 0xC0 && marker <= 0xCF && marker != 0xC4 &&
                             marker != 0xC8 && marker != 0xCC;
    if (frameHeader) {
      height = (static_cast<unsigned char>(b[i + 5]) << 8) | static_cast<unsigned char>(b[i + 6]);
      width = (static_cast<unsigned char>(b[i + 7]) << 8) | static_cast<unsigned char>(b[i + 8]);
      return true;
    }
    if (length < 2) return false;
    i += 2 + length;
  }
  return false;
}

bool PnmSize(const std::string& b, uint64_t& width, uint64_t& height) {
  // "P1".."P6", then width and height as decimal text, comments allowed.
  size_t i = 2;
  uint64_t values[2] = {0, 0};
  for (uint64_t& value : values) {
    while (i < b.size() && (std::isspace(static_cast<unsigned char>(b[i])) || b[i] == '#')) {
      if (b[i] == '#') {
        while (i < b.size() && b[i] != '\n') ++i;
      } else {
        ++i;
      }
    }
    size_t digits = 0;
    for (; i < b.size() && b[i] >= '0' && b[i] <= '9' && digits < 12; ++i, ++digits) {
      value = value * 10 + static_cast<uint64_t>(b[i] - '0');
    }
    if (digits == 0) return false;
  }
  width = values[0];
  height = values[1];
  return true;
}

uint32_t Crc32(const char* data, size_t size) {
  static const auto table = [] {
    std::array<uint32_t, 256> t{};
    for (uint32_t n = 0; n < 256; ++n) {
      uint32_t c = n;
      for (int k = 0; k < 8; ++k) c = (c & 1u) != 0 ? 0xEDB88320u ^ (c >> 1) : c >> 1;
      t[n] = c;
    }
    return t;
  }();
  uint32_t c = 0xFFFFFFFFu;
  for (size_t i = 0; i < size; ++i) c = table[(c ^ static_cast<unsigned char>(data[i])) & 0xFFu] ^ (c >> 8);
  return ~c;
}

// PNG: every chunk whole with a matching CRC, up to IEND.
bool PngComplete(const std::string& b, std::string& why) {
  size_t at = 8;
  while (true) {
    if (at + 12 > b.size()) {
      why = "is truncated (the PNG ends before its IEND chunk)";
      return false;
    }
    const uint64_t length = BigEndian32(b, at);
    if (length > b.size() - at - 12) {
      why = "is truncated (a PNG chunk runs past the end of the file)";
      return false;
    }
    const size_t end = at + 8 + static_cast<size_t>(length);
    if (Crc32(b.data() + at + 4, static_cast<size_t>(length) + 4) != BigEndian32(b, end)) {
      why = "is damaged (CRC error in its PNG " + b.substr(at + 4, 4) + " chunk)";
      return false;
    }
    if (b.compare(at + 4, 4, "IEND") == 0) return true;
    at = end + 4;
  }
}

// BMP without compression: the pixel rows the header promises are there.
bool BmpComplete(const std::string& b, std::string& why) {
  if (b.size() < 54 || LittleEndian32(b, 14) < 40) return true;  // older headers: the decoder's call
  const uint64_t offset = LittleEndian32(b, 10);
  const auto width = static_cast<int32_t>(LittleEndian32(b, 18));
  const auto height = static_cast<int32_t>(LittleEndian32(b, 22));
  const unsigned bits = static_cast<unsigned char>(b[28]) | (static_cast<unsigned char>(b[29]) << 8);
  const uint32_t compression = LittleEndian32(b, 30);
  if (compression != 0 || width <= 0 || bits == 0) return true;
  const uint64_t stride = (static_cast<uint64_t>(width) * bits + 31) / 32 * 4;
  const uint64_t rows = static_cast<uint64_t>(height < 0 ? -static_cast<int64_t>(height) : height);
  const uint64_t needed = offset + stride * rows;
  if (b.size() < needed) {
    why = "is truncated (" + std::to_string(b.size()) + " of the " + std::to_string(needed) +
          " bytes its BMP header promises)";
    return false;
  }
  return true;
}

// Whether the file is whole as far as its format shows cheaply; decoders
// would otherwise guess (BMP), or print their own complaints (PNG, JPEG).
bool LooksComplete(const std::string& b, std::string& why) {
  if (b.size() >= 8 && b.compare(0, 8, "\x89PNG\r\n\x1a\n") == 0) return PngComplete(b, why);
  if (b.size() >= 2 && b[0] == 'B' && b[1] == 'M') return BmpComplete(b, why);
  if (b.size() >= 2 && static_cast<unsigned char>(b[0]) == 0xFF &&
      static_cast<unsigned char>(b[1]) == 0xD8) {
    size_t end = b.size();
    while (end > 2 && b[end - 1] == '\0') --end;  // padding after the end marker
    if (end < 4 || static_cast<unsigned char>(b[end - 2]) != 0xFF ||
        static_cast<unsigned char>(b[end - 1]) != 0xD9) {
      why = "is truncated (the JPEG ends without its end marker)";
      return false;
    }
  }
  return true;
}

std::string Shown(const fs::path& file) { return file.lexically_normal().string(); }

// A kind of problem met at some files of a folder: the first in words, and
// how many more files have it.
class Grouped {
 public:
  void Add(std::string first) {
    if (count_++ == 0) first_ = std::move(first);
  }
  void Report(std::vector<std::string>& out) const {
    if (count_ == 0) return;
    out.push_back(count_ == 1 ? first_
                              : first_ + " (and " + std::to_string(count_ - 1) + " more files)");
  }

 private:
  size_t count_ = 0;
  std::string first_;
};

}  // namespace

std::vector<fs::path> FilesOf(const fs::path& folder) {
  std::vector<fs::path> files;
  std::error_code ec;
  fs::directory_iterator it(folder, ec);
  if (ec) return files;
  for (; it != fs::directory_iterator(); it.increment(ec)) {
    if (ec) break;
    std::error_code kindError;
    if (it->is_directory(kindError)) continue;
    files.push_back(it->path());
  }
  std::sort(files.begin(), files.end(), [](const fs::path& a, const fs::path& b) {
    return a.filename().native() < b.filename().native();
  });
  return files;
}

bool HasImageExtension(const fs::path& file) {
  std::string ext = file.extension().string();
  for (char& c : ext) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  static const char* const kExtensions[] = {".bmp", ".dib", ".png",  ".jpg", ".jpeg", ".jpe",
                                            ".tif", ".tiff", ".pgm", ".ppm", ".pbm",  ".pnm",
                                            ".pxm", ".webp", ".jp2", ".sr",  ".ras",  ".exr",
                                            ".hdr", ".pic",  ".pfm"};
  return std::any_of(std::begin(kExtensions), std::end(kExtensions),
                     [&ext](const char* known) { return ext == known; });
}

bool ImageSizeFromHeader(const std::string& b, uint64_t& width, uint64_t& height) {
  if (b.size() >= 24 && b.compare(0, 8, "\x89PNG\r\n\x1a\n") == 0 && b.compare(12, 4, "IHDR") == 0) {
    width = BigEndian32(b, 16);
    height = BigEndian32(b, 20);
    return true;
  }
  if (b.size() >= 26 && b[0] == 'B' && b[1] == 'M') {
    const uint32_t headerSize = LittleEndian32(b, 14);
    if (headerSize == 12) {  // OS/2 header: 16-bit sizes
      width = static_cast<unsigned char>(b[18]) | (static_cast<unsigned char>(b[19]) << 8);
      height = static_cast<unsigned char>(b[20]) | (static_cast<unsigned char>(b[21]) << 8);
    } else {
      const auto w = static_cast<int32_t>(LittleEndian32(b, 18));
      const auto h = static_cast<int32_t>(LittleEndian32(b, 22));  // negative: top-down rows
      width = static_cast<uint64_t>(w < 0 ? -static_cast<int64_t>(w) : w);
      height = static_cast<uint64_t>(h < 0 ? -static_cast<int64_t>(h) : h);
    }
    return true;
  }
  if (b.size() >= 4 && static_cast<unsigned char>(b[0]) == 0xFF &&
      static_cast<unsigned char>(b[1]) == 0xD8) {
    return JpegSize(b, width, height);
  }
  if (b.size() >= 3 && b[0] == 'P' && b[1] >= '1' && b[1] <= '6') return PnmSize(b, width, height);
  return false;
}

bool ReadRegularFile(const fs::path& path, uint64_t maxBytes, std::string& bytes,
                     std::string& problem) {
  Descriptor file;
  file.fd = ::open(path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
  if (file.fd < 0) {
    problem = std::string("cannot be opened: ") + std::strerror(errno);
    return false;
  }
  struct stat status {};
  if (::fstat(file.fd, &status) != 0 || !S_ISREG(status.st_mode)) {
    problem = S_ISDIR(status.st_mode) ? "is a folder, not a file"
                                      : "is not a regular file (a FIFO, device or socket)";
    return false;
  }
  const auto tooLarge = [&problem, maxBytes](uint64_t size) {
    problem = "is " + std::to_string(size) + " bytes, more than the " + std::to_string(maxBytes) +
              " bytes such a file may have";
    return false;
  };
  if (static_cast<uint64_t>(status.st_size) > maxBytes) return tooLarge(status.st_size);
  bytes.assign(static_cast<size_t>(status.st_size), '\0');
  size_t done = 0;
  while (true) {
    if (done == bytes.size()) {
      if (bytes.size() > maxBytes) return tooLarge(bytes.size());
      bytes.resize(bytes.size() + 4096);  // the file grew since fstat
    }
    const ssize_t got = ::read(file.fd, bytes.data() + done, bytes.size() - done);
    if (got < 0 && errno == EINTR) continue;
    if (got < 0) {
      problem = std::string("cannot be read: ") + std::strerror(errno);
      return false;
    }
    if (got == 0) break;
    done += static_cast<size_t>(got);
  }
  bytes.resize(done);
  if (done > maxBytes) return tooLarge(done);
  return true;
}

std::vector<ClubImage*> LoadCameraFrames(const fs::path& folder, int impactIndex,
                                         const FrameLoadLimits& limits,
                                         std::vector<std::string>* warnings) {
  std::vector<ClubImage*> frames;
  std::vector<fs::path> names;  // file of each frame
  Grouped unreadable, overLimit, undecodable, sizes, order;
  try {
    const std::vector<fs::path> files = FilesOf(folder);
    frames.reserve(files.size());
    long long frameFiles = 0;  // frame files met so far, decoded or not
    for (const fs::path& file : files) {
      const bool imageName = HasImageExtension(file);
      const long long position = frameFiles;
      std::string bytes;
      std::string problem;
      if (!ReadRegularFile(file, limits.maxFileBytes, bytes, problem)) {
        if (imageName) {
          ++frameFiles;
          unreadable.Add(Shown(file) + " " + problem + "; skipped");
        }
        continue;
      }
      uint64_t width = 0;
      uint64_t height = 0;
      if (ImageSizeFromHeader(bytes, width, height) &&
          (width > limits.maxPixels || height > limits.maxPixels ||
           width * height > limits.maxPixels)) {
        ++frameFiles;
        overLimit.Add(Shown(file) + " is " + std::to_string(width) + " x " +
                      std::to_string(height) + " pixels, more than the limit of " +
                      std::to_string(limits.maxPixels) + "; skipped");
        continue;
      }
      if (!LooksComplete(bytes, problem)) {
        if (imageName) {
          ++frameFiles;
          undecodable.Add(Shown(file) + " " + problem + "; skipped, still counted for ImpactIndex");
        }
        continue;
      }
      // Files that do not decode (the option file among them) are skipped.
      const cv::Mat grey = bytes.empty()
                               ? cv::Mat()
                               : cv::imdecode(cv::Mat(1, static_cast<int>(bytes.size()), CV_8UC1,
                                                      bytes.data()),
                                              cv::IMREAD_GRAYSCALE);
      bytes.clear();
      bytes.shrink_to_fit();
      if (grey.empty() || grey.type() != CV_8UC1 || grey.total() > limits.maxPixels) {
        if (imageName) {
          ++frameFiles;
          undecodable.Add(Shown(file) + (grey.empty() ? " does not decode as an image (damaged "
                                                        "or truncated?)"
                                                      : " is over the pixel limit") +
                          "; skipped, still counted for ImpactIndex");
        }
        continue;
      }
      ++frameFiles;
      auto frame = std::make_unique<ClubImage>();
      *frame = ClubImage{};
      frame->width = static_cast<uint32_t>(grey.cols);
      frame->height = static_cast<uint32_t>(grey.rows);
      frame->bytesPerChannel = 1;
      frame->channels = 1;
      const size_t rowBytes = static_cast<size_t>(grey.cols);
      std::unique_ptr<unsigned char[]> pixels(new unsigned char[rowBytes * grey.rows]);
      for (int y = 0; y < grey.rows; ++y) {
        std::memcpy(pixels.get() + rowBytes * y, grey.ptr<unsigned char>(y), rowBytes);
      }
      frame->pixels = pixels.release();
      // Names are parsed as the bytes stand; only ASCII digits, '_', ',' and
      // '.' matter to the conversions.
      const std::string narrow = file.filename().native();
      ParseFrameFileName(std::wstring(narrow.begin(), narrow.end()), *frame);
      frame->afterImpact = position >= impactIndex ? 1u : 0u;
      if (!frames.empty()) {
        const ClubImage& first = *frames.front();
        const ClubImage& last = *frames.back();
        if (frame->width != first.width || frame->height != first.height) {
          sizes.Add(Shown(file) + " is " + std::to_string(frame->width) + " x " +
                    std::to_string(frame->height) + " pixels, the camera's first frame " +
                    Shown(names.front()) + " " + std::to_string(first.width) + " x " +
                    std::to_string(first.height));
        }
        if (frame->timeStamp <= last.timeStamp) {
          const bool saturated = frame->timeStamp == static_cast<uint64_t>(INT64_MAX);
          order.Add(Shown(file) + ": time stamp " + std::to_string(frame->timeStamp) +
                    (saturated ? " (the name's number is beyond the largest time stamp)" : "") +
                    (frame->timeStamp == last.timeStamp ? ", the same as " : ", below ") +
                    Shown(names.back()) + "'s; speeds over such frames are meaningless");
        }
      }
      names.push_back(file);
      frames.push_back(frame.release());
    }
  } catch (...) {
    FreeFrames(frames);
    throw;
  }
  if (warnings != nullptr) {
    for (const Grouped* g : {&unreadable, &overLimit, &undecodable, &sizes, &order}) {
      g->Report(*warnings);
    }
  }
  return frames;
}
