// Double-precision elementary functions for the set-up paths (beam design,
// steering vectors, geometry). Polynomial coefficients are the published
// minimax fits for these intervals; the reductions are Cody-Waite with the
// constant split so that the first products are exact.
#include "math_functions.h"

#include <bit>
#include <cfloat>
#include <cstdint>
#include <limits>

namespace kivbf::math {
namespace {

constexpr double kInfinity = std::numeric_limits<double>::infinity();
constexpr double kRoundMagic = 6755399441055744.0;  // 1.5 * 2^52: adding it rounds to an integer

// Nearest integer (ties to even) of |v| < 2^51, as a double.
double RoundToInteger(double v) { return (v + kRoundMagic) - kRoundMagic; }

// 2^k for -1022 <= k <= 1023.
double PowerOfTwo(int32_t k) {
    return std::bit_cast<double>(static_cast<uint64_t>(k + 1023) << 52);
}

// --- exp -------------------------------------------------------------------
constexpr double kLog2E = 1.44269504088896338700e+00;
constexpr double kLn2High = 6.93147180369123816490e-01;  // trailing zeros: k * kLn2High is exact
constexpr double kLn2Low = 1.90821492927058770002e-10;
constexpr double kExpP[] = {1.66666666666666019037e-01, -2.77777777770155933842e-03,
                            6.61375632143793436117e-05, -1.65339022054652515390e-06,
                            4.13813679705723846039e-08};

// --- sin, cos --------------------------------------------------------------
constexpr double kTwoOverPi = 6.36619772367581382433e-01;
// pi/2 in three 33-bit parts and a tail: n * part is exact for n < 2^20.
constexpr double kPiOver2Part1 = 1.57079632673412561417e+00;
constexpr double kPiOver2Part2 = 6.07710050630396597660e-11;
constexpr double kPiOver2Part3 = 2.02226624871116645580e-21;
constexpr double kPiOver2Tail = 8.47842766036889956997e-32;
constexpr double kPreciseLimit = 1048576.0;  // 2^20
constexpr double kSinS[] = {-1.66666666666666324348e-01, 8.33333333332248946124e-03,
                            -1.98412698298579493134e-04, 2.75573137070700676789e-06,
                            -2.50507602534068634195e-08, 1.58969099521155010221e-10};
constexpr double kCosC[] = {4.16666666666666019037e-02, -1.38888888888741095749e-03,
                            2.48015872894767294178e-05, -2.75573143513906633035e-07,
                            2.08757232129817482790e-09, -1.13596475577881948265e-11};

struct Reduced {
    double high;       // x - n pi/2, |high| <= about pi/4
    double low;        // what high leaves out
    int32_t quadrant;  // n mod 4
};

int32_t QuadrantOf(double n) {
    // n is a whole number; for |n| >= 2^53 it is a multiple of 4.
    if (n >= 9007199254740992.0 || n <= -9007199254740992.0) return 0;
    return static_cast<int32_t>(static_cast<int64_t>(n) & 3);
}

Reduced Reduce(double x) {
    int32_t quadrant = 0;
    // Beyond 2^20 the products below are no longer exact. No phase the
    // library forms is that large; such arguments are brought down in coarse
    // steps that keep the result finite and repeatable, not accurate.
    while (x > kPreciseLimit || x < -kPreciseLimit) {
        const double v = x * kTwoOverPi;
        const double n = (v >= 2251799813685248.0 || v <= -2251799813685248.0) ? v
                                                                                : RoundToInteger(v);
        quadrant += QuadrantOf(n);
        x = x - n * kPiOver2Part1;
    }
    const double n = RoundToInteger(x * kTwoOverPi);
    const double t = x - n * kPiOver2Part1;  // exact
    const double w = n * kPiOver2Part2;      // exact
    const double r = t - w;
    const double lost = ((t - r) - w) - (n * kPiOver2Part3 + n * kPiOver2Tail);
    const double high = r + lost;
    return {high, (r - high) + lost, (quadrant + QuadrantOf(n)) & 3};
}

// sin(x + y) for |x| <= pi/4, |y| tiny.
double SinKernel(double x, double y) {
    const double z = x * x;
    double s = kSinS[5];
    for (int32_t i = 4; i >= 1; --i) s = s * z + kSinS[i];
    // x + x^3 S(z), with y carried through cos(x) ~ 1 - z/2.
    return x + ((x * z) * (kSinS[0] + z * s) + (y - 0.5 * z * y));
}

// cos(x + y) for |x| <= pi/4: 1 - z/2 is formed with its rounding error kept.
double CosKernel(double x, double y) {
    const double z = x * x;
    double c = kCosC[5];
    for (int32_t i = 4; i >= 0; --i) c = c * z + kCosC[i];
    const double half_z = 0.5 * z;
    const double w = 1.0 - half_z;
    return w + (((1.0 - w) - half_z) + (z * z * c - x * y));
}

// --- atan ------------------------------------------------------------------
constexpr double kPiOver2 = 1.57079632679489655800e+00;
constexpr double kPiOver2Low = 6.12323399573676603587e-17;
// atan(a) = c + atan((a - T) / (1 + a T)) with T = tan(k pi/16) rounded to a
// double and c = atan(T) exactly, in two parts. a in [T_k, T_k+1) keeps the
// argument in [0, tan(pi/16)] and both terms positive: nothing cancels.
constexpr double kAtanTangent[] = {0.0, 0.198912367379658, 0.41421356237309503,
                                   0.6681786379192989};
constexpr double kAtanAngle[] = {0.0, 0.19634954084936207, 0.39269908169872414,
                                 0.5890486225480862};
constexpr double kAtanAngleLow[] = {0.0, 6.846802412842648e-18, 3.060132146563891e-18,
                                    -5.412106055318847e-18};

// atan(t) for 0 <= t <= tan(pi/16): odd Taylor series to t^25.
double AtanSeries(double t) {
    const double z = t * t;
    double s = 1.0 / 25.0;
    for (int32_t i = 11; i >= 1; --i) {
        const double term = ((i & 1) != 0 ? -1.0 : 1.0) / static_cast<double>(2 * i + 1);
        s = s * z + term;
    }
    return t + t * z * s;
}

}  // namespace

double Exp(double x) {
    if (x != x) return x;
    if (x > 709.782712893383973096) return kInfinity;
    if (x < -745.133219101941108420) return 0.0;  // below half the smallest subnormal
    const double k = RoundToInteger(x * kLog2E);
    const double high = x - k * kLn2High;
    const double low = k * kLn2Low;
    const double r = high - low;
    const double z = r * r;
    const double c = r - z * (kExpP[0] + z * (kExpP[1] + z * (kExpP[2] + z * (kExpP[3] + z * kExpP[4]))));
    const double e_r = 1.0 - ((low - (r * c) / (2.0 - c)) - high);
    // 2^k in two factors, each a normal number.
    const auto k_int = static_cast<int32_t>(k);
    const int32_t half = k_int / 2;
    return e_r * PowerOfTwo(half) * PowerOfTwo(k_int - half);
}

double Sin(double x) {
    if (!(x - x == 0.0)) return x - x;  // NaN for NaN and +-inf
    const Reduced r = Reduce(x);
    switch (r.quadrant) {
        case 0: return SinKernel(r.high, r.low);
        case 1: return CosKernel(r.high, r.low);
        case 2: return -SinKernel(r.high, r.low);
        default: return -CosKernel(r.high, r.low);
    }
}

double Cos(double x) {
    if (!(x - x == 0.0)) return x - x;
    const Reduced r = Reduce(x);
    switch (r.quadrant) {
        case 0: return CosKernel(r.high, r.low);
        case 1: return -SinKernel(r.high, r.low);
        case 2: return -CosKernel(r.high, r.low);
        default: return SinKernel(r.high, r.low);
    }
}

double Atan(double x) {
    if (x != x) return x;
    const bool negative = x < 0.0;
    double a = negative ? -x : x;
    double result;
    if (a > 1e17) {
        result = kPiOver2;
    } else {
        const bool inverted = a > 1.0;
        if (inverted) a = 1.0 / a;
        int32_t k = 3;
        while (a < kAtanTangent[k]) --k;
        const double t = (a - kAtanTangent[k]) / (1.0 + a * kAtanTangent[k]);
        const double angle = kAtanAngle[k] + (AtanSeries(t) + kAtanAngleLow[k]);
        result = inverted ? kPiOver2 - (angle - kPiOver2Low) : angle;
    }
    return negative ? -result : result;
}

}  // namespace kivbf::math
