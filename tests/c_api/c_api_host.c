/* A C host of the C interface: loads the library with dlopen, resolves every
 * function with dlsym, measures RECORDING and a few bad calls, and prints one
 * "key value" line per result for test_host_loading to compare with `clubtrack run`.
 *   c_api_host LIBRARY RECORDING */
#include <dlfcn.h>
#include <stdio.h>

#include "clubtracker/clubtracker_c.h"

typedef void (*DefaultOptions)(clubtracker_options*);
typedef int (*MeasureRecording)(const char*, const clubtracker_options*, clubtracker_report*);
typedef int (*MeasureFrames)(const clubtracker_frame*, size_t, const clubtracker_frame*, size_t,
                             const double*, const clubtracker_options*, clubtracker_report*);
typedef const char* (*StatusText)(int);
typedef const char* (*Version)(void);

static void* Resolve(void* library, const char* name) {
  void* symbol = dlsym(library, name);
  if (symbol == NULL) fprintf(stderr, "c_api_host: %s not found\n", name);
  return symbol;
}

#define VALUE(name) printf(#name " %.17g\n", (double)report.name)
#define DELIVERY(flag, name) \
  printf(#flag " %d\n", report.flag), VALUE(name), VALUE(name##_std_err)

int main(int argc, char** argv) {
  if (argc != 3) {
    fprintf(stderr, "usage: %s LIBRARY RECORDING\n", argv[0]);
    return 2;
  }
  void* library = dlopen(argv[1], RTLD_NOW | RTLD_LOCAL);
  if (library == NULL) {
    fprintf(stderr, "c_api_host: %s\n", dlerror());
    return 1;
  }
  DefaultOptions defaults = (DefaultOptions)Resolve(library, "clubtracker_default_options");
  MeasureRecording measure = (MeasureRecording)Resolve(library, "clubtracker_measure_recording");
  MeasureFrames frames = (MeasureFrames)Resolve(library, "clubtracker_measure_frames");
  StatusText text = (StatusText)Resolve(library, "clubtracker_status_text");
  Version version = (Version)Resolve(library, "clubtracker_version");
  if (!defaults || !measure || !frames || !text || !version) return 1;

  clubtracker_report report;
  const int status = measure(argv[2], NULL, &report);
  printf("version %s\nstatus %d\nstatus_text %s\nmessage %s\n", version(), status, text(status),
         report.message);
  VALUE(club_head_speed_mps);
  VALUE(head_tracking_speed_mps);
  VALUE(paired_frames);
  VALUE(cam1_frames);
  VALUE(cam2_frames);
  VALUE(processing_time_ms);
  VALUE(warning_count);
  DELIVERY(has_club_speed, club_speed_mps);
  DELIVERY(has_attack_angle, attack_angle_deg);
  DELIVERY(has_path, path_deg);
  DELIVERY(has_swing_plane, swing_plane_deg);
  DELIVERY(has_swing_direction, swing_direction_deg);
  DELIVERY(has_low_point_ahead, low_point_ahead_mm);
  DELIVERY(has_low_point_height, low_point_height_mm);
  DELIVERY(has_low_point_side, low_point_side_mm);

  /* Failures: a status, its text and a one-line reason each. */
  clubtracker_options options;
  defaults(&options);
  options.up[1] = 2.0;
  int bad = measure(argv[2], &options, &report);
  printf("bad_options %d %s: %s\n", bad, text(bad), report.message);
  bad = measure("/nonexistent/recording", NULL, &report);
  printf("bad_recording %d %s: %s\n", bad, text(bad), report.message);
  bad = frames(NULL, 0, NULL, 0, NULL, NULL, &report);
  printf("bad_argument %d %s: %s\n", bad, text(bad), report.message);
  printf("null_report %d\nunknown_status %s\n", measure(argv[2], NULL, NULL), text(99));
  dlclose(library);
  return 0;
}
