/* clubtracker's C interface: plain structs and functions, usable from C, from
 * any foreign-function interface and from a host that loads the library with
 * dlopen() and resolves these names with dlsym().
 *
 *   clubtracker_report report;
 *   int status = clubtracker_measure_recording("rec", NULL, &report);
 *   if (status != 0) fprintf(stderr, "%s: %s\n", clubtracker_status_text(status), report.message);
 *   else printf("%.2f m/s\n", report.head_tracking_speed_mps);
 *
 * Every call fills the whole report (zeroes first), never throws, keeps no
 * state between calls and may run on several threads at once on distinct
 * data. Nothing returned needs freeing. Speeds are in m/s: the recordings'
 * units are millimetres and microseconds, so world units per time-stamp unit
 * times 1000. The conventions of the club delivery are those of
 * clubtracker/measure.h. */
#ifndef CLUBTRACKER_CLUBTRACKER_C_H
#define CLUBTRACKER_CLUBTRACKER_C_H

#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

#define CLUBTRACKER_C_API __attribute__((visibility("default")))

/* Return values of the measuring calls; clubtracker_status_text names them. */
enum clubtracker_status {
  CLUBTRACKER_OK = 0,
  CLUBTRACKER_BAD_ARGUMENT = 1,  /* a null pointer, an empty camera, a frame that cannot be used */
  CLUBTRACKER_BAD_OPTIONS = 2,   /* up/target not unit vectors or not perpendicular */
  CLUBTRACKER_BAD_RECORDING = 3, /* the recording cannot be read */
  CLUBTRACKER_FAILED = 4         /* the measurement stopped (out of memory and the like) */
};

/* How to measure. Fill with clubtracker_default_options(); NULL means the defaults. */
typedef struct clubtracker_options {
  double up[3];                /* unit vector; default (0, 1, 0) */
  double target[3];            /* unit vector along the target line, perpendicular to up;
                                  default (1, 0, 0) */
  uint32_t time_limit_seconds; /* the line-based measurement's limit; 0 = none */
  int32_t line_based;          /* 1 = run the line-based measurement (default) */
  int32_t head_tracking;       /* 1 = track the head: its speed and the club delivery (default) */
  /* Tracker setting of clubtracker_measure_frames (a recording brings its own):
     region of interest (0 width/height = whole frame), the time-stamp windows
     around the impact and the world axes ranking the spin axis. */
  int32_t roi_x, roi_y, roi_width, roi_height;
  int32_t interval_before_impact; /* default 2000 */
  int32_t interval_after_impact;  /* default 2000 */
  int32_t axis_index;             /* default 1 */
  int32_t axis_norm_index;        /* default 2 */
} clubtracker_options;

/* One camera frame, owned by the caller and only read. */
typedef struct clubtracker_frame {
  uint32_t width;
  uint32_t height;
  uint32_t channels;            /* 1 = grey, 3 = BGR, 4 = BGRA; 8 bits each */
  const unsigned char* pixels;  /* width * height * channels bytes, packed rows */
  int32_t sensor_offset_x;      /* the frame's top-left pixel on the full sensor */
  int32_t sensor_offset_y;
  uint32_t after_impact;        /* 1 = captured after the impact */
  uint64_t time_stamp;          /* camera ticks (microseconds) */
  float ball_x;                 /* ball centre in the frame; (0, 0) = not given */
  float ball_y;
  float ball_radius;            /* 0 = not given */
} clubtracker_frame;

/* Number of calibration values of clubtracker_measure_frames: camera 1's
   intrinsic matrix (3x3, row-major), its extrinsic [R|t] (3x4, row-major,
   world to camera), then camera 2's two. */
#define CLUBTRACKER_CALIBRATION_VALUES 42

/* Everything one swing gave. A club-delivery value is valid only when its
   has_ flag is 1; it then comes with its standard error (1 sigma, same unit).
   When one is absent, message says why (as on failure). */
typedef struct clubtracker_report {
  /* Line-based measurement of the tracker (Find); 0 = none. */
  double club_head_speed_mps;
  float head_radius;           /* pivot to ball, mm */
  float angular_velocity;      /* radians per microsecond */
  float axis_direction[3];
  float axis_position[3];      /* pivot, mm */
  int32_t speed_frame_from;
  int32_t speed_frame_to;
  int32_t cam1_frames;
  int32_t cam2_frames;
  int32_t paired_frames;
  double processing_time_ms;   /* wall-clock time of the line-based measurement */

  /* The club head followed in both cameras; 0 = none. No standard error of
     its own: club_speed_mps below, when present, is the same motion with one. */
  double head_tracking_speed_mps;

  /* Club delivery at impact. */
  int32_t has_club_speed;
  double club_speed_mps, club_speed_mps_std_err;
  int32_t has_attack_angle;
  double attack_angle_deg, attack_angle_deg_std_err;
  int32_t has_path;
  double path_deg, path_deg_std_err;
  int32_t has_swing_plane;
  double swing_plane_deg, swing_plane_deg_std_err;
  int32_t has_swing_direction;
  double swing_direction_deg, swing_direction_deg_std_err;
  int32_t has_low_point_ahead;   /* the arc's lowest point from the ball's centre */
  double low_point_ahead_mm, low_point_ahead_mm_std_err;
  int32_t has_low_point_height;
  double low_point_height_mm, low_point_height_mm_std_err;
  int32_t has_low_point_side;
  double low_point_side_mm, low_point_side_mm_std_err;

  int32_t warning_count;  /* warnings and notes of the measurement */
  char message[256];      /* on failure the reason; otherwise the first warning or "" */
} clubtracker_report;

/* Writes the defaults into *options. */
CLUBTRACKER_C_API void clubtracker_default_options(clubtracker_options* options);

/* Measures a recording on disk: a run option file or a folder holding
   "run.ini". options may be NULL. Returns CLUBTRACKER_OK or a status. */
CLUBTRACKER_C_API int clubtracker_measure_recording(const char* recording,
                                                    const clubtracker_options* options,
                                                    clubtracker_report* report);

/* Measures frames handed over in memory: each camera's frames in capture
   order and the CLUBTRACKER_CALIBRATION_VALUES calibration values. options may
   be NULL. Returns CLUBTRACKER_OK or a status. */
CLUBTRACKER_C_API int clubtracker_measure_frames(const clubtracker_frame* cam1, size_t cam1_count,
                                                 const clubtracker_frame* cam2, size_t cam2_count,
                                                 const double* calibration,
                                                 const clubtracker_options* options,
                                                 clubtracker_report* report);

/* A short text for a status ("ok", "bad argument", ...); never NULL. */
CLUBTRACKER_C_API const char* clubtracker_status_text(int status);

/* The library's version, "MAJOR.MINOR.PATCH". */
CLUBTRACKER_C_API const char* clubtracker_version(void);

#ifdef __cplusplus
}
#endif

#endif /* CLUBTRACKER_CLUBTRACKER_C_H */
