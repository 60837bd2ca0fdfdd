// Single precision where results must not depend on the width of the processor's registers.

#ifndef REPOSITORYHANDLER_SINGLEPRECISION_H
#define REPOSITORYHANDLER_SINGLEPRECISION_H

// Rounds to single precision, also where the processor computes and returns floats with more bits.
inline float toSingle(long double value) {
  volatile float single = static_cast<float>(value);
  return single;
}

#endif
