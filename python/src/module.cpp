// clubtracker's Python module: numpy frames in, the measurement of
// `clubtrack run --json` out as a dict.
#include <pybind11/numpy.h>
#include <pybind11/pybind11.h>
#include <pybind11/stl.h>
#include <pybind11/stl/filesystem.h>

#include <memory>
#include <string>
#include <vector>

#include "clubtracker/measure.h"
#include "setting.h"

namespace py = pybind11;
using clubtracker_python::SettingFromDict;
using clubtracker_python::SettingToDict;

namespace {

[[noreturn]] void RaiseOSError(const std::string& message) {
  PyErr_SetString(PyExc_OSError, message.c_str());
  throw py::error_already_set();
}

// One frame: the pixel array it keeps alive and the ClubImage pointing into it.
struct Frame {
  py::array pixels;
  ClubImage image{};
};
using FramePtr = std::shared_ptr<Frame>;

// A time stamp from any Python integer; ValueError outside 0 .. 2^64-1.
uint64_t TimeStamp(const py::object& value) {
  const py::int_ number = py::module_::import("operator").attr("index")(value);
  if (number < py::int_(0) || number > py::int_(UINT64_MAX)) {
    throw py::value_error("time_stamp " + py::str(static_cast<const py::object&>(number)).cast<std::string>() +
                          " is outside 0 .. 2^64-1");
  }
  return number.cast<uint64_t>();
}

FramePtr MakeFrame(const py::array& source, uint64_t timeStamp, std::array<int32_t, 2> offset,
                   std::array<float, 2> ball, bool afterImpact, float ballRadius) {
  if (!py::isinstance<py::array_t<uint8_t>>(source)) {
    throw py::value_error("pixels must be a uint8 array, not " +
                          std::string(py::str(source.dtype())));
  }
  const bool colour = source.ndim() == 3 && (source.shape(2) == 3 || source.shape(2) == 4);
  if (source.ndim() != 2 && !colour) {
    throw py::value_error("pixels must be HxW (grey) or HxWx3 (BGR), not of shape " +
                          std::string(py::str(source.attr("shape"))));
  }
  if (source.shape(0) <= 0 || source.shape(1) <= 0) throw py::value_error("pixels are empty");
  auto frame = std::make_shared<Frame>();
  // A C-contiguous array is used as it is; anything else is copied once.
  frame->pixels = py::array_t<uint8_t, py::array::c_style | py::array::forcecast>::ensure(source);
  ClubImage& im = frame->image;
  im.height = static_cast<uint32_t>(source.shape(0));
  im.width = static_cast<uint32_t>(source.shape(1));
  im.bytesPerChannel = 1;
  im.channels = colour ? static_cast<uint32_t>(source.shape(2)) : 1;
  // The tracker only reads the pixels.
  im.pixels = static_cast<unsigned char*>(const_cast<void*>(frame->pixels.data()));
  im.sensorOffsetX = offset[0];
  im.sensorOffsetY = offset[1];
  im.afterImpact = afterImpact ? 1 : 0;
  im.timeStamp = timeStamp;
  im.ballX = ball[0];
  im.ballY = ball[1];
  im.ballRadius = ballRadius;
  return frame;
}

// A recording in Python: both cameras' frames, the setting and where it came from.
struct PyRecording {
  std::vector<FramePtr> cam1;
  std::vector<FramePtr> cam2;
  ClubTrackerSetting setting{};
  std::string runFile;
  int impactIndex = 10;
  std::vector<std::string> warnings;
};
using RecordingPtr = std::shared_ptr<PyRecording>;

std::vector<FramePtr> FrameList(const py::sequence& frames, const char* name) {
  std::vector<FramePtr> list;
  for (const py::handle item : frames) {
    if (!py::isinstance<Frame>(item)) {
      throw py::value_error(std::string(name) + " must hold Frame objects only, not " +
                            std::string(py::str(py::type::of(item).attr("__name__"))));
    }
    list.push_back(item.cast<FramePtr>());
  }
  if (list.empty()) throw py::value_error(std::string(name) + " holds no frames");
  const ClubImage& first = list.front()->image;
  for (size_t i = 1; i < list.size(); ++i) {
    const ClubImage& im = list[i]->image;
    if (im.width != first.width || im.height != first.height || im.channels != first.channels) {
      throw py::value_error(std::string(name) + " frame " + std::to_string(i) +
                            " differs in size or channels from frame 0");
    }
  }
  return list;
}

// Reads a recording; its frames view the pixels the reader decoded.
RecordingPtr Load(const std::filesystem::path& path) {
  auto loaded = std::make_shared<clubtracker::Recording>();
  std::string why;
  bool ok = false;
  {
    py::gil_scoped_release release;
    ok = clubtracker::LoadRecording(path, *loaded, &why);
  }
  if (!ok) RaiseOSError(why);
  auto rec = std::make_shared<PyRecording>();
  rec->setting = loaded->setting;
  rec->runFile = loaded->runFile.string();
  rec->impactIndex = loaded->impactIndex;
  rec->warnings = loaded->warnings;
  const py::object owner = py::cast(loaded);
  for (auto [from, to] : {std::pair{&loaded->cam1, &rec->cam1}, std::pair{&loaded->cam2, &rec->cam2}}) {
    for (const ClubImage& im : *from) {
      std::vector<py::ssize_t> shape{im.height, im.width};
      if (im.channels > 1) shape.push_back(im.channels);
      const py::array view(py::dtype::of<uint8_t>(), shape, im.pixels, owner);
      auto frame = std::make_shared<Frame>();
      frame->pixels = view;
      frame->image = im;
      to->push_back(frame);
    }
  }
  return rec;
}

py::dict Measure(const py::object& source, clubtracker::Vec3 up, clubtracker::Vec3 target,
                 int timeLimit, bool lineBased, bool headTracking, bool trajectory) {
  clubtracker::MeasureOptions options;
  options.up = up;
  options.target = target;
  if (timeLimit < 0) throw py::value_error("time_limit must not be negative");
  options.timeLimitSeconds = static_cast<unsigned int>(timeLimit);
  options.lineBased = lineBased;
  options.headTracking = headTracking;
  options.keepFrames = false;
  std::string why;
  if (!options.IsValid(&why)) throw py::value_error(why);

  RecordingPtr rec;
  if (py::isinstance<PyRecording>(source)) {
    rec = source.cast<RecordingPtr>();
  } else if (py::isinstance<py::str>(source) ||
             py::isinstance(source, py::module_::import("os").attr("PathLike"))) {
    rec = Load(source.cast<std::filesystem::path>());
  } else {
    throw py::value_error("measure needs a Recording or a path");
  }
  // `rec` holds the frames, and with them their pixels, until the end.
  std::vector<ClubImage> cam1;
  std::vector<ClubImage> cam2;
  for (const FramePtr& f : rec->cam1) cam1.push_back(f->image);
  for (const FramePtr& f : rec->cam2) cam2.push_back(f->image);
  clubtracker::SwingReport report;
  std::string text;
  {
    py::gil_scoped_release release;
    report = clubtracker::Measure(cam1, cam2, rec->setting, options);
    report.warnings.insert(report.warnings.begin(), rec->warnings.begin(), rec->warnings.end());
    text = clubtracker::ReportJson(report, rec->runFile);
  }
  if (!report.ok) throw std::runtime_error(report.error);
  py::dict result = py::module_::import("json").attr("loads")(text);
  if (trajectory) {
    const clubtracker::ClubDelivery& d = report.delivery;
    py::dict path;
    path["times"] = d.times;
    path["headPath"] = d.headPath;
    path["ball"] = d.ball ? py::cast(*d.ball) : py::none();
    path["lowPoint"] = d.lowPoint ? py::cast(*d.lowPoint) : py::none();
    path["arcCentre"] = d.arcCentre ? py::cast(*d.arcCentre) : py::none();
    path["arcNormal"] = d.arcNormal ? py::cast(*d.arcNormal) : py::none();
    path["arcRadius"] = d.arcRadius;
    result["trajectory"] = path;
  }
  return result;
}

}  // namespace

PYBIND11_MODULE(_clubtracker, m) {
  m.doc() = "Measures a golf swing from two synchronised high-speed cameras.";
  m.attr("__version__") = CLUBTRACKER_VERSION;

  // Owner of a loaded recording's pixels; the frames' arrays keep it alive.
  py::class_<clubtracker::Recording, std::shared_ptr<clubtracker::Recording>>(
      m, "_Pixels", "The pixels of a recording read from disk (internal).");

  py::class_<Frame, FramePtr>(m, "Frame", "One camera frame: its pixels and metadata.")
      .def(py::init([](const py::array& pixels, const py::object& timeStamp,
                       std::array<int32_t, 2> offset, std::array<float, 2> ball, bool afterImpact,
                       float ballRadius) {
             return MakeFrame(pixels, TimeStamp(timeStamp), offset, ball, afterImpact, ballRadius);
           }),
           py::arg("pixels"), py::arg("time_stamp"), py::arg("sensor_offset") = std::array<int32_t, 2>{0, 0},
           py::arg("ball") = std::array<float, 2>{0.0f, 0.0f}, py::arg("after_impact") = false,
           py::arg("ball_radius") = 0.0f,
           "pixels: HxW uint8 (grey) or HxWx3 uint8 (BGR) array, kept alive by the frame and\n"
           "used without a copy when C-contiguous. time_stamp: camera ticks (microseconds).\n"
           "sensor_offset: the frame's top-left pixel on the full sensor. ball: the ball's\n"
           "centre in the frame, (0, 0) = not given; ball_radius 0 = not given.\n"
           "after_impact: captured after the impact.")
      .def_property_readonly("pixels", [](const Frame& f) { return f.pixels; },
                             "The pixel array (a view, not a copy).")
      .def_property_readonly("time_stamp", [](const Frame& f) { return f.image.timeStamp; },
                             "Camera ticks.")
      .def_property_readonly("sensor_offset", [](const Frame& f) {
             return std::array<int32_t, 2>{f.image.sensorOffsetX, f.image.sensorOffsetY};
           }, "The frame's top-left pixel on the full sensor (x, y).")
      .def_property_readonly("ball", [](const Frame& f) {
             return std::array<float, 2>{f.image.ballX, f.image.ballY};
           }, "The ball's centre in the frame (x, y); (0, 0) = not given.")
      .def_property_readonly("ball_radius", [](const Frame& f) { return f.image.ballRadius; },
                             "The ball's radius in pixels; 0 = not given.")
      .def_property_readonly("after_impact", [](const Frame& f) { return f.image.afterImpact != 0; },
                             "True when captured after the impact.")
      .def("__repr__", [](const Frame& f) {
        return "<clubtracker.Frame " + std::to_string(f.image.width) + "x" +
               std::to_string(f.image.height) + "x" + std::to_string(f.image.channels) +
               " t=" + std::to_string(f.image.timeStamp) + ">";
      });

  py::class_<PyRecording, RecordingPtr>(m, "Recording",
                                        "One swing: both cameras' frames and the tracker's setting.")
      .def(py::init([](const py::sequence& cam1, const py::sequence& cam2, const py::dict& setting) {
             auto rec = std::make_shared<PyRecording>();
             rec->cam1 = FrameList(cam1, "cam1");
             rec->cam2 = FrameList(cam2, "cam2");
             rec->setting = SettingFromDict(setting);
             return rec;
           }),
           py::arg("cam1"), py::arg("cam2"), py::arg("setting") = py::dict(),
           "cam1, cam2: lists of Frame, in time order. setting: dict keyed by the\n"
           "ClubTrackerSetting field names (roiX, roiY, roiWidth, roiHeight,\n"
           "timeStampIntervalBeforeImpact, timeStampIntervalAfterImpact, axisIndex,\n"
           "axisNormIndex, cam1Intrinsic (9 numbers, 3x3 row-major), cam1Extrinsic (12, [R|t]\n"
           "world to camera), cam2Intrinsic, cam2Extrinsic); missing keys keep the defaults.")
      .def_property_readonly("cam1", [](const PyRecording& r) { return r.cam1; },
                             "Camera 1's frames (a new list).")
      .def_property_readonly("cam2", [](const PyRecording& r) { return r.cam2; },
                             "Camera 2's frames (a new list).")
      .def_property_readonly("setting", [](const PyRecording& r) { return SettingToDict(r.setting); },
                             "The tracker's setting as a dict (a copy).")
      .def_property_readonly("run_file", [](const PyRecording& r) { return r.runFile; },
                             "The run option file read; empty for a recording built in Python.")
      .def_property_readonly("impact_index", [](const PyRecording& r) { return r.impactIndex; },
                             "The run option file's impact frame index.")
      .def_property_readonly("warnings", [](const PyRecording& r) { return r.warnings; },
                             "What reading the recording noticed.")
      .def("__repr__", [](const PyRecording& r) {
        return "<clubtracker.Recording " + std::to_string(r.cam1.size()) + " + " +
               std::to_string(r.cam2.size()) + " frames" +
               (r.runFile.empty() ? std::string() : " from " + r.runFile) + ">";
      });

  m.def("load_recording", &Load, py::arg("path"),
        "Reads a recording (a run option file or a folder holding run.ini) as\n"
        "`clubtrack run` does. Raises OSError when it cannot be read.");

  m.def("measure", &Measure, py::arg("recording"), py::arg("up") = clubtracker::Vec3{0, 1, 0},
        py::arg("target") = clubtracker::Vec3{1, 0, 0}, py::arg("time_limit") = 0,
        py::arg("line_based") = true, py::arg("head_tracking") = true,
        py::arg("trajectory") = false,
        "Measures one swing and returns the dict `clubtrack run --json` writes.\n\n"
        "recording: a Recording or the path of one. up: unit vector of the world's up;\n"
        "target: horizontal unit vector along the target line. time_limit: seconds for the\n"
        "line-based measurement, 0 = none. line_based, head_tracking: which measurements run.\n"
        "trajectory: also return the key 'trajectory' with the head's path and fitted arc\n"
        "(times, headPath, ball, lowPoint, arcCentre, arcNormal, arcRadius).\n"
        "The GIL is released while measuring. Raises ValueError for bad arguments, OSError\n"
        "when a path cannot be read, RuntimeError when the measurement could not run.");
}
