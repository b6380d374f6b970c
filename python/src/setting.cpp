// ClubTrackerSetting <-> dict, driven by one table of its fields.
#include "setting.h"

#include <cmath>
#include <string>

namespace py = pybind11;

namespace clubtracker_python {

namespace {

struct IntField {
  const char* name;
  int32_t ClubTrackerSetting::*member;
};

struct ArrayField {
  const char* name;
  double* (*at)(ClubTrackerSetting&);
  size_t count;
};

constexpr IntField kIntFields[] = {
    {"roiX", &ClubTrackerSetting::roiX},
    {"roiY", &ClubTrackerSetting::roiY},
    {"roiWidth", &ClubTrackerSetting::roiWidth},
    {"roiHeight", &ClubTrackerSetting::roiHeight},
    {"timeStampIntervalBeforeImpact", &ClubTrackerSetting::timeStampIntervalBeforeImpact},
    {"timeStampIntervalAfterImpact", &ClubTrackerSetting::timeStampIntervalAfterImpact},
    {"axisIndex", &ClubTrackerSetting::axisIndex},
    {"axisNormIndex", &ClubTrackerSetting::axisNormIndex},
};

constexpr ArrayField kArrayFields[] = {
    {"cam1Intrinsic", [](ClubTrackerSetting& s) { return s.cam1Intrinsic; }, 9},
    {"cam1Extrinsic", [](ClubTrackerSetting& s) { return s.cam1Extrinsic; }, 12},
    {"cam2Intrinsic", [](ClubTrackerSetting& s) { return s.cam2Intrinsic; }, 9},
    {"cam2Extrinsic", [](ClubTrackerSetting& s) { return s.cam2Extrinsic; }, 12},
};

double Number(const py::handle& value, const std::string& name) {
  if (!py::isinstance<py::int_>(value) && !py::isinstance<py::float_>(value) &&
      !py::hasattr(value, "__float__")) {
    throw py::value_error("setting " + name + " is not a number");
  }
  const double number = py::cast<double>(py::float_(py::reinterpret_borrow<py::object>(value)));
  if (!std::isfinite(number)) throw py::value_error("setting " + name + " is not finite");
  return number;
}

}  // namespace

ClubTrackerSetting SettingFromDict(const py::dict& values) {
  ClubTrackerSetting setting{};
  InitClubTrackerSetting(setting);
  for (const auto& [key, value] : values) {
    const std::string name = py::str(key);
    bool known = false;
    for (const IntField& f : kIntFields) {
      if (name != f.name) continue;
      const double number = Number(value, name);
      if (number != std::floor(number) || std::fabs(number) > 2147483647.0) {
        throw py::value_error("setting " + name + " is not a 32-bit integer");
      }
      setting.*f.member = static_cast<int32_t>(number);
      known = true;
    }
    for (const ArrayField& f : kArrayFields) {
      if (name != f.name) continue;
      const py::sequence list = py::reinterpret_borrow<py::sequence>(
          py::module_::import("numpy").attr("ravel")(value).attr("tolist")());
      if (list.size() != f.count) {
        throw py::value_error("setting " + name + " needs " + std::to_string(f.count) +
                              " numbers, got " + std::to_string(list.size()));
      }
      for (size_t i = 0; i < f.count; ++i) {
        f.at(setting)[i] = Number(list[i], name + "[" + std::to_string(i) + "]");
      }
      known = true;
    }
    if (!known) throw py::value_error("unknown setting key '" + name + "'");
  }
  return setting;
}

py::dict SettingToDict(const ClubTrackerSetting& setting) {
  ClubTrackerSetting copy = setting;
  py::dict values;
  for (const IntField& f : kIntFields) values[f.name] = copy.*f.member;
  for (const ArrayField& f : kArrayFields) {
    py::list list;
    for (size_t i = 0; i < f.count; ++i) list.append(f.at(copy)[i]);
    values[f.name] = list;
  }
  return values;
}

}  // namespace clubtracker_python
