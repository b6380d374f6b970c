// Quick, certain answers about the least-squares point of unit planes, from
// their normal equations: whether a line pair's point surely fails the
// acceptance windows, and how low a refit's residual can surely not go. In
// doubt they say so, and the caller solves the system exactly.
#pragma once

#include <cstdint>

// Acceptance windows of a four-plane hypothesis (bounds included).
struct PairWindows {
  double maxResidual;
  double minAlong;
  double maxAlong;
  double minDistance;
  double maxDistance;
};

// One plane's share of the normal equations A^T A x = A^T d: the upper
// triangle of n n^T (00, 01, 02, 11, 12, 22) and n d, and whether the plane
// may enter them (unit normal, finite offset).
struct PlaneNormalTerms {
  double nn[6];
  double nd[3];
  bool usable;
};

PlaneNormalTerms NormalTerms(const double* normal, double offset);

// True only when the least-squares point of the four planes (rows of a, unit
// normals; offsets d) certainly fails the windows around `reference`, whatever
// the last bits of its solution: decided on the normal equations of a
// well-conditioned system, with margins far beyond the difference between
// that solution and the library's. False whenever in doubt (nearly parallel
// planes, values that are not finite, a point near a bound); the caller then
// solves the system exactly and decides on that.
// `terms` are the four planes' NormalTerms, in the order of the rows.
bool PairSurelyRejected(const double* a, const double* d, const PlaneNormalTerms* const* terms,
                        const double* reference, int axisIndex, const PairWindows& windows);

// The values of a run of planes that PairSurelyRejected reads, one array per
// value: NormalTerms (usable as 1.0 or 0.0), unit normal and offset.
struct PlaneTermColumns {
  const double* nn[6];
  const double* nd[3];
  const double* usable;
  const double* normal[3];
  const double* offset;
};

// PairSurelyRejected of the planes (first[0], first[1], first[2], plane k of
// `last`) for k < count <= 64, as bit k: the same operations lane by lane.
// `a` holds the three first planes' normals (9 values), `d` their offsets.
// The columns must be readable up to count rounded up to a multiple of four
// (what lies past count is read and ignored).
uint64_t PairsSurelyRejected(const double* a, const double* d,
                             const PlaneNormalTerms* const* first, const PlaneTermColumns& last,
                             int count, const double* reference, int axisIndex,
                             const PairWindows& windows);

// One plane of a refit: its unit normal, offset and NormalTerms.
struct PlaneRow {
  const double* normal;
  double offset;
  const PlaneNormalTerms* terms;
};

// A value the least-squares residual (r . r) / count of the rows is surely not
// below, however its last bits come out; decided as PairSurelyRejected decides
// and NaN whenever in doubt.
double ResidualSurelyAbove(const PlaneRow* rows, int count);
