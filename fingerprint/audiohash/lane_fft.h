// KissFFT's forward real transform, evaluated for several frames at once.
//
// Each lane of a vector is one frame. Every lane performs exactly the float
// operations that libkissfft (float build) performs for one transform, in the
// same order, with the same twiddle factors: results are bit-identical to
// kiss_fftr() (tests compare them), only the frames run side by side.
// Transcribed from KISS FFT's kiss_fft.c and kiss_fftr.c, Copyright (c)
// 2003-2010 Mark Borgerding, BSD-3-Clause. Only radices 4 and 2 are needed: the
// hash transforms powers of two.
#pragma once

#include <cmath>
#include <cstddef>
#include <vector>

namespace tellora::audiohash {

// Twiddles and factors of a forward real transform of `nfft` points (even).
struct LaneFftPlan {
  struct Cpx {
    float r, i;
  };
  int ncfft = 0;                   // complex points: nfft / 2
  std::vector<int> factors;        // p1, m1, p2, m2, ... as kf_factor() makes them
  std::vector<Cpx> twiddles;       // ncfft entries
  std::vector<Cpx> superTwiddles;  // ncfft / 2 entries

  // False when ncfft is not a power of two (the hash never asks for that).
  bool init(int nfft) {
    ncfft = nfft / 2;
    if (ncfft < 2 || (ncfft & (ncfft - 1)) != 0) return false;
    twiddles.resize(ncfft);
    for (int i = 0; i < ncfft; ++i) {
      const double pi = 3.141592653589793238462643383279502884197169399375105820974944;
      double phase = -2 * pi * i / ncfft;
      twiddles[i] = {static_cast<float>(std::cos(phase)), static_cast<float>(std::sin(phase))};
    }
    superTwiddles.resize(ncfft / 2);
    for (int i = 0; i < ncfft / 2; ++i) {
      double phase = -3.14159265358979323846264338327 * ((double)(i + 1) / ncfft + .5);
      superTwiddles[i] = {static_cast<float>(std::cos(phase)), static_cast<float>(std::sin(phase))};
    }
    // Powers of 4 first, then a 2 (the library's order for powers of two).
    factors.clear();
    int n = ncfft;
    while (n > 1) {
      int p = (n % 4 == 0) ? 4 : 2;
      n /= p;
      factors.push_back(p);
      factors.push_back(n);
    }
    return true;
  }
};

// V is a GCC vector of floats (one lane per frame).
template <class V>
struct LaneCpx {
  V r, i;
};

template <class V>
class LaneFft {
 public:
  using Cpx = LaneCpx<V>;
  explicit LaneFft(const LaneFftPlan& plan) : plan_(plan) {}

  // in: ncfft complex points (even samples in r, odd in i); tmp: ncfft scratch;
  // out: ncfft + 1 points, the spectrum from DC to Nyquist.
  void forward(const Cpx* in, Cpx* tmp, Cpx* out) const {
    work(tmp, in, 1, plan_.factors.data());
    const int ncfft = plan_.ncfft;
    Cpx tdc = tmp[0];
    out[0].r = tdc.r + tdc.i;
    out[ncfft].r = tdc.r - tdc.i;
    out[ncfft].i = out[0].i = V{};
    for (int k = 1; k <= ncfft / 2; ++k) {
      Cpx fpk = tmp[k];
      Cpx fpnk{tmp[ncfft - k].r, -tmp[ncfft - k].i};
      Cpx f1k{fpk.r + fpnk.r, fpk.i + fpnk.i};
      Cpx f2k{fpk.r - fpnk.r, fpk.i - fpnk.i};
      Cpx tw = mul(f2k, plan_.superTwiddles[k - 1]);
      out[k].r = (f1k.r + tw.r) * .5f;
      out[k].i = (f1k.i + tw.i) * .5f;
      out[ncfft - k].r = (f1k.r - tw.r) * .5f;
      out[ncfft - k].i = (tw.i - f1k.i) * .5f;
    }
  }

 private:
  static Cpx mul(const Cpx& a, const LaneFftPlan::Cpx& b) {
    return {a.r * b.r - a.i * b.i, a.r * b.i + a.i * b.r};
  }

  void work(Cpx* fout, const Cpx* f, size_t fstride, const int* factors) const {
    Cpx* const begin = fout;
    const int p = *factors++;
    const int m = *factors++;
    const Cpx* const end = fout + p * m;
    if (m == 1) {
      do {
        *fout = *f;
        f += fstride;
      } while (++fout != end);
    } else {
      do {
        work(fout, f, fstride * p, factors);
        f += fstride;
      } while ((fout += m) != end);
    }
    if (p == 4)
      butterfly4(begin, fstride, m);
    else
      butterfly2(begin, fstride, m);
  }

  void butterfly2(Cpx* fout, size_t fstride, int m) const {
    const LaneFftPlan::Cpx* tw1 = plan_.twiddles.data();
    Cpx* fout2 = fout + m;
    do {
      Cpx t = mul(*fout2, *tw1);
      tw1 += fstride;
      fout2->r = fout->r - t.r;
      fout2->i = fout->i - t.i;
      fout->r += t.r;
      fout->i += t.i;
      ++fout2;
      ++fout;
    } while (--m);
  }

  void butterfly4(Cpx* fout, size_t fstride, size_t m) const {
    const LaneFftPlan::Cpx* tw1 = plan_.twiddles.data();
    const LaneFftPlan::Cpx* tw2 = tw1;
    const LaneFftPlan::Cpx* tw3 = tw1;
    const size_t m2 = 2 * m, m3 = 3 * m;
    size_t k = m;
    do {
      Cpx s0 = mul(fout[m], *tw1);
      Cpx s1 = mul(fout[m2], *tw2);
      Cpx s2 = mul(fout[m3], *tw3);
      Cpx s5{fout->r - s1.r, fout->i - s1.i};
      fout->r += s1.r;
      fout->i += s1.i;
      Cpx s3{s0.r + s2.r, s0.i + s2.i};
      Cpx s4{s0.r - s2.r, s0.i - s2.i};
      fout[m2].r = fout->r - s3.r;
      fout[m2].i = fout->i - s3.i;
      tw1 += fstride;
      tw2 += fstride * 2;
      tw3 += fstride * 3;
      fout->r += s3.r;
      fout->i += s3.i;
      fout[m].r = s5.r + s4.i;
      fout[m].i = s5.i - s4.r;
      fout[m3].r = s5.r - s4.i;
      fout[m3].i = s5.i + s4.r;
      ++fout;
    } while (--k);
  }

  const LaneFftPlan& plan_;
};

}  // namespace tellora::audiohash
