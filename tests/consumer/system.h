#pragma once

#include <cstdint>
#include <cstdio>

// A = (2 0; 1 3), x = (1, 10): y = (2, 31).
inline std::int64_t row_ptr[] = {1, 2, 4};
inline std::int64_t col_ind[] = {1, 1, 2};
inline double val[] = {2.0, 1.0, 3.0};
inline double x[] = {1.0, 10.0};
inline double y[] = {0.0, 0.0};

inline int check() {
    std::printf("y = %g, %g\n", y[0], y[1]);
    return y[0] == 2.0 && y[1] == 31.0 ? 0 : 1;
}
