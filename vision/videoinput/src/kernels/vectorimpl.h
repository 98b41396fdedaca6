// The body of the vector kernels, shared by the instruction sets: each of
// vector<set>.cpp includes it inside its own namespace, after defining on its vector
// type V (kLanes lanes of 16 bytes) the operations used here. Every lane converts a block of its
// own; only loads, stores and laterLanes(), which hands the pixels of one block of a reduction to
// the block before it, see more than one lane, so the code is the same for any number of lanes.
// Nothing here has external linkage but the kernels declared in vector.h, and no header is
// included: no code built for one instruction set can be picked by the linker for another file.
//
// The arithmetic is that of the reference kernels, exactly: sums in 16-bit lanes, split where
// they would leave 16 bits, or kept where a wrap-around is harmless because the true sum is known
// to fit; shifts floor like the reference's; saturating packs clamp. The hue family works in
// 32-bit lanes, and divides in floats where the quotient is known to come out exact (hueOf()).
#pragma once

namespace {

constexpr char kZ = -128;  // a shuffle index that writes zero

// A shuffle mask of 16 byte indexes, the same in every lane.
inline V mask(char p0, char p1, char p2, char p3, char p4, char p5, char p6, char p7, char p8,
              char p9, char p10, char p11, char p12, char p13, char p14, char p15) {
  return everyLane(
      _mm_setr_epi8(p0, p1, p2, p3, p4, p5, p6, p7, p8, p9, p10, p11, p12, p13, p14, p15));
}

// Two signed bytes (for maddubs), repeated over the register.
inline V pair8(int pLow, int pHigh) {
  return splat16(static_cast<short>((static_cast<unsigned>(pHigh) << 8) |
                                    (static_cast<unsigned>(pLow) & 0xFFu)));
}

template <int kStep>
struct Step {
  static constexpr int kValue = kStep;
};

// --- From kYUV422: four destination macro-pixels per lane ---

constexpr int kBlock = 4;
constexpr int kPerLoop = kBlock * kLanes;

// The lane's four source macro-pixels as 16 contiguous bytes: every second one at step 2, from
// loads that end with the last of them.
template <int kStep>
inline V block(const unsigned char* pSource) {
  if constexpr (kStep == 1) {
    return lanes(pSource, 16);
  } else {
    return evenOddDwords(lanes(pSource, 32), lanes(pSource + 12, 32));
  }
}

// Runs pBody on the whole blocks of the row at step 1 or 2 and returns the macro-pixels done. A
// destination macro-pixel advances kSource * step source bytes. Where the loads of a block end
// beyond the last byte that the reference reads for the block's macro-pixels, kSpare1 (at step 1)
// or kSpare2 (at step 2) more macro-pixels must follow, whose reads by the reference reach as far.
template <int kTargetBytes, int kSource, int kSpare1, int kSpare2, class Body>
int rows(const unsigned char* pSource, int pStep, unsigned char* pTarget, int pCount, Body pBody) {
  if (pStep != 1 && pStep != 2) return 0;
  const int usable = pCount - (pStep == 1 ? kSpare1 : kSpare2);
  const int done = usable <= 0 ? 0 : usable / kPerLoop * kPerLoop;
  if (pStep == 1) {
    for (int i = 0; i < done; i += kPerLoop) {
      pBody(Step<1>(), pSource + kSource * i, pTarget + kTargetBytes * i);
    }
  } else {
    for (int i = 0; i < done; i += kPerLoop) {
      pBody(Step<2>(), pSource + 2 * kSource * i, pTarget + kTargetBytes * i);
    }
  }
  return done;
}

// The kernels that read whole macro-pixels through block(), which reads no further.
template <int kTargetBytes, class Body>
int wholeRows(const unsigned char* pSource, int pStep, unsigned char* pTarget, int pCount,
              Body pBody) {
  return rows<kTargetBytes, 4, 0, 0>(pSource, pStep, pTarget, pCount, pBody);
}

// One channel of eight pixels, in 16-bit lanes. With the luma factor 298 = 256 + 42 and a
// chroma factor c = 256 m + r, the sum 298 Y + c X + 256 k + o is 256 (Y + m X + k) plus
// 42 Y + r X + o, whose floored quotient by 256 adds exactly; each part fits 16 bits, and the
// byte products (Y, X) . (1, m) and (42, r) come from maddubs without saturating.
inline V channel(V pWhole, short pWholeOffset, V pRest, short pRestOffset) {
  return add16(add16(pWhole, splat16(pWholeOffset)), srai16<8>(add16(pRest, splat16(pRestOffset))));
}

// Both pixels of each macro-pixel to RGB (kBgr false) or BGR: 24 bytes per lane.
template <bool kBgr>
int rgbRows(const unsigned char* pSource, int pStep, unsigned char* pTarget, int pCount) {
  return wholeRows<6>(
      pSource, pStep, pTarget, pCount,
      [](auto pStepTag, const unsigned char* pIn, unsigned char* pOut) {
        const V x = block<decltype(pStepTag)::kValue>(pIn);
        // Each pixel's luma beside one of its chroma bytes, for pixels 0 to 7.
        const V yu = shuffle8(x, mask(0, 1, 2, 1, 4, 5, 6, 5, 8, 9, 10, 9, 12, 13, 14, 13));
        const V yv = shuffle8(x, mask(0, 3, 2, 3, 4, 7, 6, 7, 8, 11, 10, 11, 12, 15, 14, 15));
        // 298 (Y - 16) + 409 (V - 128) = 256 (Y + 2 V - 224) + 42 Y - 103 V + 224.
        const V red = channel(maddubs(yv, pair8(1, 2)), -224, maddubs(yv, pair8(42, -103)), 224);
        // 298 (Y - 16) - 100 (U - 128) - 208 (V - 128) = 256 (Y - V + 135) + 42 Y - 100 U + 48 V
        // + 96.
        const V green = channel(maddubs(yv, pair8(1, -1)), 135,
                                add16(maddubs(yu, pair8(42, -100)), maddubs(yv, pair8(0, 48))), 96);
        // 298 (Y - 16) + 516 (U - 128) = 256 (Y + 2 U - 277) + 42 Y + 4 U + 96.
        const V blue = channel(maddubs(yu, pair8(1, 2)), -277, maddubs(yu, pair8(42, 4)), 96);
        // Saturating to bytes clamps like the reference: first channel and green, then the last.
        const V firstGreen = packus16(kBgr ? blue : red, green);
        const V last = packus16(kBgr ? red : blue, kBgr ? red : blue);
        const V out0 = or128(
            shuffle8(firstGreen, mask(0, 8, kZ, 1, 9, kZ, 2, 10, kZ, 3, 11, kZ, 4, 12, kZ, 5)),
            shuffle8(last, mask(kZ, kZ, 0, kZ, kZ, 1, kZ, kZ, 2, kZ, kZ, 3, kZ, kZ, 4, kZ)));
        const V out1 = or128(
            shuffle8(firstGreen,
                     mask(13, kZ, 6, 14, kZ, 7, 15, kZ, kZ, kZ, kZ, kZ, kZ, kZ, kZ, kZ)),
            shuffle8(last, mask(kZ, 5, kZ, kZ, 6, kZ, kZ, 7, kZ, kZ, kZ, kZ, kZ, kZ, kZ, kZ)));
        store24(pOut, out0, out1);
      });
}

// --- The hue family: one hue per macro-pixel, in 32-bit lanes, four macro-pixels per lane ---

// Two signed 16-bit factors (for madd16), repeated over the register.
inline V pair16(int pLow, int pHigh) {
  return splat32(static_cast<int>((static_cast<unsigned>(pHigh) << 16) |
                                  (static_cast<unsigned>(pLow) & 0xFFFFu)));
}

// pU * U + pV * V + pOffset, from U in the low and V in the high half of each 32-bit lane.
inline V linear(V pUv, int pU, int pV, int pOffset) {
  return add32(madd16(pUv, pair16(pU, pV)), splat32(pOffset));
}

// U and V of each macro-pixel of a block as the halves of its 32-bit lane.
inline V chromaOf(V pBlock) {
  return shuffle8(pBlock, mask(1, kZ, 3, kZ, 5, kZ, 7, kZ, 9, kZ, 11, kZ, 13, kZ, 15, kZ));
}

struct HueLanes {
  V fHue;        // its low byte is stored
  V fNumerator;  // of the saturation: 255 times the channel difference, 0 for grey
  F fBiased;     // the numerator as a float, a little too large: see saturationOf()
  V fChroma;     // the chroma part of the saturation's denominator
};

// The hue of each lane, as the reference's seven cases give it. With a = red - green and
// b = green - blue, c = red - blue is a + b, and the cases fall into three sectors, by the
// largest channel:
//   red (a > 0, c > 0): cases 1 and 2, n = b, offset 0 if b > 0, else -1;
//   blue (else, b < 0): cases 3 and 4, n = a, offset -85;
//   green (the rest): cases 5 and 6, n = -c, offset 85; and grey, a = b = c = 0, with hue 0
//   and no saturation.
// In every case the reference's divisor is, up to its sign, the spread d of the channels, the
// largest less the smallest, that of 0, -a and -c; it is 0 for grey alone. The hue is
// n * 85 / (2 d), truncated, plus the offset; the saturation's numerator 255 d, its
// denominator's chroma part that of red, green (red - a) or blue (red - c).
// In floats the quotient is exact enough: 42.5 n and d are exact (|85 n| < 2^24), and the
// rounding error of the division, below 43 * 2^-24, is smaller than the distance 1 / (2 d),
// above 4e-6, of a quotient that is no integer from the next integer: truncation agrees.
inline HueLanes hueOf(V pUv) {
  const V zero = splat32(0);
  const V a = linear(pUv, 208, 509, -91776);
  const V b = linear(pUv, -724, -100, 105472);
  const V c = add32(a, b);
  const V blue = cmpgt32(zero, b);
  const V red = and128(cmpgt32(a, zero), cmpgt32(c, zero));
  const auto sector = [&](V pGreen, V pBlue, V pRed) {
    return blend(blend(pGreen, pBlue, blue), pRed, red);
  };
  const V spread = sub32(max32(max32(a, c), zero), min32(min32(a, c), zero));
  const V grey = cmpeq32(spread, zero);
  const V n = sector(sub32(zero, c), a, b);
  const V offset = andnot128(grey, sector(splat32(85), splat32(-85), cmpgt32(splat32(1), b)));
  const V quotient = truncate(divF(mulF(toFloat(n), splatF(42.5f)), toFloat(sub32(spread, grey))));
  const V numerator = sub32(slli32<8>(spread), spread);
  return {add32(quotient, offset), numerator,
          mulF(toFloat(numerator), splatF(1.0f + 1.0f / (1 << 20))),
          sub32(linear(pUv, 0, 409, -57119), andnot128(red, blend(a, c, blue)))};
}

// The saturation of the pixels whose lumas are pLuma (one byte per 32-bit lane): numerator over
// 298 Y + chroma, truncating, clamped to 0 to 255 by the saturating packs. The denominator is
// never 0; where it is negative so is the quotient (the numerator never is), whatever the
// correction below does. Three roundings of the float quotient, below 2^-24 each, cannot undo
// the bias 2^-20 of the numerator: below 256 the float lies above the quotient, by less than
// 3e-4, so that its truncation is the quotient's or one more, which the remainder shows. Above,
// only the clamp matters.
inline V saturationOf(const HueLanes& pHue, V pLuma) {
  const V denominator = add32(madd16(pLuma, splat32(298)), pHue.fChroma);
  const V quotient = min32(truncate(divF(pHue.fBiased, toFloat(denominator))), splat32(256));
  return add32(quotient, cmpgt32(mullo32(quotient, denominator), pHue.fNumerator));
}

// Per lane the hue bytes of its four macro-pixels, then the saturations of their first pixels,
// then those of their second pixels: H0..H3, S0 0..3, S1 0..3, S1 0..3.
inline V hueAndSaturations(V pBlock) {
  const HueLanes hue = hueOf(chromaOf(pBlock));
  const V y0 = shuffle8(pBlock, mask(0, kZ, kZ, kZ, 4, kZ, kZ, kZ, 8, kZ, kZ, kZ, 12, kZ, kZ, kZ));
  const V y1 = shuffle8(pBlock, mask(2, kZ, kZ, kZ, 6, kZ, kZ, kZ, 10, kZ, kZ, kZ, 14, kZ, kZ, kZ));
  const V s1 = saturationOf(hue, y1);
  return packus16(packus32(and128(hue.fHue, splat32(0xFF)), saturationOf(hue, y0)),
                  packus32(s1, s1));
}

// A fully saturated colour per hue byte H, one channel per 32-bit lane and byte of the result:
// c0 in bytes 0 to 3, c1 in 4 to 7, c2 in 8 to 11 of each lane. Over the stretches of the hue
// each channel is 6 H plus an offset modulo 256, or 0 or 255; in whole numbers that is the
// lesser (c0, c1) or greater (c2) of a rising and a falling line, clamped to 0 to 255, but where
// two stretches meet, at 85 + 42 k: there a rising line has reached 252 and not 255 (c0 of 127,
// c2 of 211), a falling one 3 and not 0 (c2 of 85, c1 of 169).
inline V colourOf(V pHue) {
  const V h = and128(pHue, splat32(0xFF));
  const V six = add32(slli32<2>(h), slli32<1>(h));
  const auto is = [&](int pHue) { return cmpeq32(h, splat32(pHue)); };
  const V full = splat32(255);
  const V c0 =
      min32(max32(sub32(six, splat32(510)), and128(is(127), full)), sub32(splat32(1521), six));
  const V c1 = andnot128(is(169), min32(six, sub32(splat32(1017), six)));
  const V c2 = max32(andnot128(is(85), sub32(splat32(513), six)),
                     max32(sub32(six, splat32(1014)), and128(is(211), full)));
  // The saturating packs clamp.
  return packus16(packus32(c0, c1), packus32(c2, c2));
}

// --- RGB pairs to YUV422 ---

// Brings bytes kFrom to kTo of pAt (kFrom included) into the cache: one prefetch for every
// multiple of 64 among them, so that calls on ranges that follow one another meet every line.
// The rows of a reduction lie apart, each on other pages than the last: the processor's own
// prefetching learns every row anew, too late.
template <int kFrom, int kTo>
inline void prefetch(const unsigned char* pAt) {
  for (int at = (kFrom + 63) / 64 * 64; at < kTo; at += 64) {
    _mm_prefetch(reinterpret_cast<const char*>(pAt + at), _MM_HINT_T0);
  }
}

// The pairs of a reduction by kRatio (1 for the same size): the bytes from pair to pair, and from
// a pair's left pixel to its right one. At ratios 4 and 8 the right pixel of a pair is the left
// pixel of the next pair or of the one after it.
template <int kRatio>
struct PairLayout {
  static constexpr int kStep = 6 * kRatio;
  static constexpr int kRight = kRatio == 1 ? 3 : kRatio / 2 * kRatio * 3;
};

// What is computed per pixel, from red and green, and blue and green, as pairs of bytes: the luma,
// and the complements 255 - U and 255 - V of the chroma, each in the high byte of a 16-bit lane.
// Green's factor is split between the two pairs, so that no pair's products leave 16 signed
// bits; their sum plus the offset wraps around in 16 bits to the true value, which lies in
// [0, 65535]. The complements come from the negated sum s of a chroma: the high byte of
// 32639 - s is 127 - ((s + 128) >> 8), which is 255 - U (or V); their rounding byte average,
// (511 - a - b) >> 1, is then the complement of the truncating mean (a + b) >> 1.
enum Component { kLuma, kNotU, kNotV };
struct Factors {
  int fRed, fGreen1, fBlue, fGreen2, fOffset;
};
constexpr Factors kFactors[] = {
    {66, 62, 25, 67, 4224},      // 66 R + 129 G + 25 B + 128, and + 16 after the shift: 4224
    {38, 37, -112, 37, 32639},   // -U: 38 R + 74 G - 112 B
    {-112, 47, 18, 47, 32639}};  // -V: -112 R + 94 G + 18 B

// Four signed bytes, repeated over the register: for maddubs, one pair of factors in the even
// 16-bit lanes and another in the odd ones.
inline V quad8(int pEven0, int pEven1, int pOdd0, int pOdd1) {
  return splat32(static_cast<int>((static_cast<unsigned>(pEven0) & 0xFFu) |
                                  ((static_cast<unsigned>(pEven1) & 0xFFu) << 8) |
                                  ((static_cast<unsigned>(pOdd0) & 0xFFu) << 16) |
                                  ((static_cast<unsigned>(pOdd1) & 0xFFu) << 24)));
}

// Component kEven of the pixels in the even 16-bit lanes and kOdd of those in the odd ones.
template <Component kEven, Component kOdd = kEven>
inline V componentOf(V pRedGreen, V pBlueGreen) {
  constexpr Factors e = kFactors[kEven], o = kFactors[kOdd];
  static_assert(e.fOffset == o.fOffset, "one offset for both lanes");
  return add16(add16(maddubs(pRedGreen, quad8(e.fRed, e.fGreen1, o.fRed, o.fGreen1)),
                     maddubs(pBlueGreen, quad8(e.fBlue, e.fGreen2, o.fBlue, o.fGreen2))),
               splat16(static_cast<short>(e.fOffset)));
}

// Target words: the luma's high bytes in the low bytes, and in the high bytes the truncating
// means of two chroma values, given as complements in the high bytes of pNotA and pNotB.
inline V lumaAndMean(V pLuma, V pNotA, V pNotB) {
  return or128(srli16<8>(pLuma),
               andnot128(avg8(pNotA, pNotB), splat16(static_cast<short>(0xFF00))));
}

// The same size and ratio 2, where left and right pixels are distinct: four pairs of the lane,
// from the first one's left pixel, in the target's order L0 R0 L1 R1 L2 R2 L3 R3, red and green
// in one register and blue and green in the other. The loads end with the last byte of pair 3,
// which the reference reads. kLaneStride: the bytes from the lane's pairs to the next lane's.
template <int kRatio, int kLaneStride>
inline void pixelsInOrder(const unsigned char* pPair, V& pRedGreen, V& pBlueGreen) {
  if constexpr (kRatio == 1) {
    // Eight touching pixels: 0 to 4 from the load at byte 0, 5 to 7 from the one at 8.
    const V a = lanes(pPair, kLaneStride), b = lanes(pPair + 8, kLaneStride);
    pRedGreen =
        or128(shuffle8(a, mask(0, 1, 3, 4, 6, 7, 9, 10, 12, 13, kZ, kZ, kZ, kZ, kZ, kZ)),
              shuffle8(b, mask(kZ, kZ, kZ, kZ, kZ, kZ, kZ, kZ, kZ, kZ, 7, 8, 10, 11, 13, 14)));
    pBlueGreen =
        or128(shuffle8(a, mask(2, 1, 5, 4, 8, 7, 11, 10, 14, 13, kZ, kZ, kZ, kZ, kZ, kZ)),
              shuffle8(b, mask(kZ, kZ, kZ, kZ, kZ, kZ, kZ, kZ, kZ, kZ, 9, 8, 12, 11, 15, 14)));
  } else {
    // Pixels 6 bytes apart. Pixels 0 to 2 fill bytes 0 to 2, 6 to 8 and 12 to 14 of the load
    // at 0, pixels 3 and 4 bytes 3 to 5 and 9 to 11 of the load at 15: one blend packs pixels 0
    // to 4, as 0 3 1 4 2. Pixels 5 to 7 come from the load at 29.
    constexpr char k0 = 0, k1 = -1;
    const V first = blend8(lanes(pPair, kLaneStride), lanes(pPair + 15, kLaneStride),
                           mask(k0, k0, k0, k1, k1, k1, k0, k0, k0, k1, k1, k1, k0, k0, k0, k0));
    const V last = lanes(pPair + 29, kLaneStride);
    pRedGreen =
        or128(shuffle8(first, mask(0, 1, 6, 7, 12, 13, 3, 4, 9, 10, kZ, kZ, kZ, kZ, kZ, kZ)),
              shuffle8(last, mask(kZ, kZ, kZ, kZ, kZ, kZ, kZ, kZ, kZ, kZ, 1, 2, 7, 8, 13, 14)));
    pBlueGreen =
        or128(shuffle8(first, mask(2, 1, 8, 7, 14, 13, 5, 4, 11, 10, kZ, kZ, kZ, kZ, kZ, kZ)),
              shuffle8(last, mask(kZ, kZ, kZ, kZ, kZ, kZ, kZ, kZ, kZ, kZ, 3, 2, 9, 8, 15, 14)));
  }
}

// The same size and ratio 2 convert every pixel to the sums of its products alone, without
// offsets: luma 66 R + 129 G + 25 B, U -38 R - 74 G + 112 B, V 112 R - 94 G - 18 B, green's
// factor split as in kFactors.
enum SumOf { kSumY, kSumU, kSumV };
constexpr Factors kSums[] = {{66, 62, 25, 67, 0}, {-38, -37, 112, -37, 0}, {112, -47, -18, -47, 0}};

// Sum kEven of the pixels in the even 16-bit lanes and kOdd of those in the odd ones, wrapped to
// 16 bits.
template <SumOf kEven, SumOf kOdd>
inline V sumsOf(V pRedGreen, V pBlueGreen) {
  constexpr Factors e = kSums[kEven], o = kSums[kOdd];
  return add16(maddubs(pRedGreen, quad8(e.fRed, e.fGreen1, o.fRed, o.fGreen1)),
               maddubs(pBlueGreen, quad8(e.fBlue, e.fGreen2, o.fBlue, o.fGreen2)));
}

// Four pairs per lane, computed in the target's order. The luma: its sum s, wrapped to 16 bits,
// is s or s - 65536 as a signed value, and mulhrs16() by 128 floors (s + 128) / 256, or that
// less 256: the low byte is Y - 16 either way, and adding 16 carries into nothing (Y <= 235).
// The chroma: U of the left pixels and V of the right ones, rounded and offset in the high byte
// (s + 128 + 128 * 256 lies in [0, 65535]); then V of the left pixels and U of the right ones
// less 1 (the offset 127 * 256 + 128), each moved to its partner's lane. The rounding byte
// average of a and b - 1 is the truncating mean (a + b) >> 1, and no U or V is below 16, so that
// b - 1 never wraps.
template <int kRatio>
inline void pairBlock(const unsigned char* pLeft, unsigned char* pTarget) {
  V redGreen, blueGreen;
  pixelsInOrder<kRatio, 4 * PairLayout<kRatio>::kStep>(pLeft, redGreen, blueGreen);
  const V luma = mulhrs16(sumsOf<kSumY, kSumY>(redGreen, blueGreen), splat16(128));
  const V chroma = add16(sumsOf<kSumU, kSumV>(redGreen, blueGreen),
                         splat16(static_cast<short>(128 * 256 + 128)));
  const V partners = shuffle8(add16(sumsOf<kSumV, kSumU>(redGreen, blueGreen),
                                    splat16(static_cast<short>(127 * 256 + 128))),
                              mask(2, 3, 0, 1, 6, 7, 4, 5, 10, 11, 8, 9, 14, 15, 12, 13));
  const V lumaAndMeans = blend8(luma, avg8(chroma, partners), splat16(static_cast<short>(0xFF00)));
  store16(pTarget, add16(lumaAndMeans, splat16(16)));
}

// Ratios 4 and 8: the pixels sampled, kStep bytes apart, are the left pixels of the pairs and,
// kAhead pixels on, their right pixels too. Each is converted once: a block's right components
// are its own moved on by kAhead, followed by those of the next block. Eight pairs per lane.
constexpr int kPairs = 8;

// The luma and the chroma complements of eight pixels per lane.
struct Components {
  V fLuma, fNotU, fNotV;
};

template <int kRatio>
struct Sampling {
  static constexpr int kStep = PairLayout<kRatio>::kStep;
  static constexpr int kAhead = PairLayout<kRatio>::kRight / kStep;

  static int word(const unsigned char* pAt) {
    int value;
    __builtin_memcpy(&value, pAt, sizeof value);
    return value;
  }
  // Four sampled pixels as 32-bit lanes R G B x, each read from its first byte.
  static __m128i four(const unsigned char* pAt) {
    const __m128i first = _mm_cvtsi32_si128(word(pAt));
    const __m128i second = _mm_insert_epi32(first, word(pAt + kStep), 1);
    return _mm_insert_epi32(_mm_insert_epi32(second, word(pAt + 2 * kStep), 2),
                            word(pAt + 3 * kStep), 3);
  }
  // The first kAhead pixels only, each read from the byte before it and moved down: where the
  // last block's right pixels end, so does the reference's reading.
  static __m128i ahead(const unsigned char* pAt) {
    __m128i pixels = _mm_cvtsi32_si128(word(pAt - 1));
    if constexpr (kAhead == 2) pixels = _mm_insert_epi32(pixels, word(pAt + kStep - 1), 1);
    return _mm_srli_epi32(pixels, 8);
  }
  static Components componentsOfPixels(V pLow, V pHigh) {
    // Red and green, then blue and green, of pixels 0 to 3 and 4 to 7 of the lane.
    const V split = mask(0, 1, 4, 5, 8, 9, 12, 13, 2, 1, 6, 5, 10, 9, 14, 13);
    const V low = shuffle8(pLow, split), high = shuffle8(pHigh, split);
    const V redGreen = unpacklo64(low, high), blueGreen = unpackhi64(low, high);
    return {componentOf<kLuma>(redGreen, blueGreen), componentOf<kNotU>(redGreen, blueGreen),
            componentOf<kNotV>(redGreen, blueGreen)};
  }
  static Components block(const unsigned char* pAt) {
    constexpr int kLaneStride = kPairs * kStep;
    return componentsOfPixels(perLane(pAt, kLaneStride, four),
                              perLane(pAt + 4 * kStep, kLaneStride, four));
  }
  static Components following(const unsigned char* pAt) {
    return componentsOfPixels(perLane(pAt, 0, ahead), splat32(0));
  }
  // With kPrefetch, pAhead's bytes are prefetched as far as the row is read.
  template <bool kPrefetch>
  static int row(const unsigned char* pLeft, unsigned char* pTarget, int pPairs,
                 const unsigned char* pAhead) {
    constexpr int kPerLoop = kPairs * kLanes;
    const int done = pPairs / kPerLoop * kPerLoop;
    if (done == 0) return 0;
    Components current = block(pLeft);
    for (int i = 0; i < done; i += kPerLoop) {
      if constexpr (kPrefetch) prefetch<0, kStep * kPerLoop>(pAhead + kStep * i);
      const unsigned char* next = pLeft + kStep * (i + kPerLoop);
      const Components after = i + kPerLoop < done ? block(next) : following(next);
      const auto right = [](V pCurrent, V pAfter) {
        return alignr<2 * kAhead>(laterLanes(pCurrent, pAfter), pCurrent);
      };
      // Y0 U, then Y1 V, of each pair.
      const V first = lumaAndMean(current.fLuma, current.fNotU, right(current.fNotU, after.fNotU));
      const V second = lumaAndMean(right(current.fLuma, after.fLuma), current.fNotV,
                                   right(current.fNotV, after.fNotV));
      store32(pTarget + 4 * i, unpacklo16(first, second), unpackhi16(first, second));
      current = after;
    }
    return done;
  }
};

}  // namespace

int yuvRow(const unsigned char* pSource, int pStep, unsigned char* pTarget, int pCount) {
  return rows<2, 4, 1, 1>(
      pSource, pStep, pTarget, pCount,
      [](auto pStepTag, const unsigned char* pIn, unsigned char* pOut) {
        if constexpr (decltype(pStepTag)::kValue == 1) {
          // Every luma byte.
          store8(pOut, shuffle8(lanes(pIn, 16),
                                mask(0, 2, 4, 6, 8, 10, 12, 14, kZ, kZ, kZ, kZ, kZ, kZ, kZ, kZ)));
        } else {
          // Y0 of every macro-pixel.
          const V y0 = mask(0, 4, 8, 12, kZ, kZ, kZ, kZ, kZ, kZ, kZ, kZ, kZ, kZ, kZ, kZ);
          store8(pOut, unpacklo32(shuffle8(lanes(pIn, 32), y0), shuffle8(lanes(pIn + 16, 32), y0)));
        }
      });
}

int yuv422Row(const unsigned char* pSource, int pStep, unsigned char* pTarget, int pCount) {
  // At step 2 the loads end one byte after the last Y1 read.
  return rows<4, 4, 0, 1>(
      pSource, pStep, pTarget, pCount,
      [](auto pStepTag, const unsigned char* pIn, unsigned char* pOut) {
        if constexpr (decltype(pStepTag)::kValue == 1) {
          store16(pOut, lanes(pIn, 16));
        } else {
          // Y0 U, Y0 of the next macro-pixel, V.
          const V pick = mask(0, 1, 6, 3, 8, 9, 14, 11, kZ, kZ, kZ, kZ, kZ, kZ, kZ, kZ);
          store16(pOut,
                  unpacklo64(shuffle8(lanes(pIn, 32), pick), shuffle8(lanes(pIn + 16, 32), pick)));
        }
      });
}

int yuvPackedRow(const unsigned char* pSource, int pStep, unsigned char* pTarget, int pCount) {
  return wholeRows<6>(
      pSource, pStep, pTarget, pCount,
      [](auto pStepTag, const unsigned char* pIn, unsigned char* pOut) {
        const V x = block<decltype(pStepTag)::kValue>(pIn);
        store24(pOut, shuffle8(x, mask(0, 1, 3, 2, 1, 3, 4, 5, 7, 6, 5, 7, 8, 9, 11, 10)),
                shuffle8(x, mask(9, 11, 12, 13, 15, 14, 13, 15, kZ, kZ, kZ, kZ, kZ, kZ, kZ, kZ)));
      });
}

int rgbRow(const unsigned char* pSource, int pStep, unsigned char* pTarget, int pCount) {
  return rgbRows<false>(pSource, pStep, pTarget, pCount);
}

int bgrRow(const unsigned char* pSource, int pStep, unsigned char* pTarget, int pCount) {
  return rgbRows<true>(pSource, pStep, pTarget, pCount);
}

int hsyRow(const unsigned char* pSource, int pStep, unsigned char* pTarget, int pCount) {
  // Half a macro-pixel per step. At step 1 the lane's four reads overlap: U and V are the odd
  // bytes 2i + 1 and 2i + 3, from bytes 0 to 7 and 2 to 9, where the reference stops. At step 2
  // they are whole macro-pixels, one after the other.
  return rows<2, 2, 0, 0>(
      pSource, pStep, pTarget, pCount,
      [](auto pStepTag, const unsigned char* pIn, unsigned char* pOut) {
        V uv;
        if constexpr (decltype(pStepTag)::kValue == 1) {
          const auto eight = [](const unsigned char* pAt) {
            return _mm_loadl_epi64(reinterpret_cast<const __m128i*>(pAt));
          };
          uv = shuffle8(unpacklo8(perLane(pIn, 8, eight), perLane(pIn + 2, 8, eight)),
                        mask(2, kZ, 3, kZ, 6, kZ, 7, kZ, 10, kZ, 11, kZ, 14, kZ, 15, kZ));
        } else {
          uv = chromaOf(lanes(pIn, 16));
        }
        store8(pOut, shuffle8(hueOf(uv).fHue,
                              mask(0, 0, 4, 4, 8, 8, 12, 12, kZ, kZ, kZ, kZ, kZ, kZ, kZ, kZ)));
      });
}

int hsyPackedRow(const unsigned char* pSource, int pStep, unsigned char* pTarget, int pCount) {
  return wholeRows<6>(
      pSource, pStep, pTarget, pCount,
      [](auto pStepTag, const unsigned char* pIn, unsigned char* pOut) {
        const V x = block<decltype(pStepTag)::kValue>(pIn);
        const V hs = hueAndSaturations(x);
        // H S0 Y0 H S1 Y1 per macro-pixel.
        store24(
            pOut,
            or128(shuffle8(hs, mask(0, 4, kZ, 0, 8, kZ, 1, 5, kZ, 1, 9, kZ, 2, 6, kZ, 2)),
                  shuffle8(x, mask(kZ, kZ, 0, kZ, kZ, 2, kZ, kZ, 4, kZ, kZ, 6, kZ, kZ, 8, kZ))),
            or128(
                shuffle8(hs, mask(10, kZ, 3, 7, kZ, 3, 11, kZ, kZ, kZ, kZ, kZ, kZ, kZ, kZ, kZ)),
                shuffle8(x, mask(kZ, 10, kZ, kZ, 12, kZ, kZ, 14, kZ, kZ, kZ, kZ, kZ, kZ, kZ, kZ))));
      });
}

int hsMixedRow(const unsigned char* pSource, int pStep, unsigned char* pTarget, int pCount) {
  return wholeRows<6>(
      pSource, pStep, pTarget, pCount,
      [](auto pStepTag, const unsigned char* pIn, unsigned char* pOut) {
        const V hs = hueAndSaturations(block<decltype(pStepTag)::kValue>(pIn));
        // H S0 H H S1 H per macro-pixel.
        store24(pOut, shuffle8(hs, mask(0, 4, 0, 0, 8, 0, 1, 5, 1, 1, 9, 1, 2, 6, 2, 2)),
                shuffle8(hs, mask(10, 2, 3, 7, 3, 3, 11, 3, kZ, kZ, kZ, kZ, kZ, kZ, kZ, kZ)));
      });
}

int h2rgbRow(const unsigned char* pSource, int pStep, unsigned char* pTarget, int pCount) {
  return wholeRows<6>(
      pSource, pStep, pTarget, pCount,
      [](auto pStepTag, const unsigned char* pIn, unsigned char* pOut) {
        const V c = colourOf(hueOf(chromaOf(block<decltype(pStepTag)::kValue>(pIn))).fHue);
        // c0 c1 c2 twice per macro-pixel.
        store24(pOut, shuffle8(c, mask(0, 4, 8, 0, 4, 8, 1, 5, 9, 1, 5, 9, 2, 6, 10, 2)),
                shuffle8(c, mask(6, 10, 3, 7, 11, 3, 7, 11, kZ, kZ, kZ, kZ, kZ, kZ, kZ, kZ)));
      });
}

int yycbcrRow(const unsigned char* pSource, int pStep, unsigned char* pTarget, int pCount) {
  return wholeRows<4>(
      pSource, pStep, pTarget, pCount,
      [](auto pStepTag, const unsigned char* pIn, unsigned char* pOut) {
        store16(pOut, shuffle8(block<decltype(pStepTag)::kValue>(pIn),
                               mask(0, 2, 1, 3, 4, 6, 5, 7, 8, 10, 9, 11, 12, 14, 13, 15)));
      });
}

namespace {

// Ratio 2 in whole blocks, four a turn while they last, and with kPrefetch pAhead's pairs
// prefetched as far.
template <bool kPrefetch>
int ratio2Row(const unsigned char* pLeft, unsigned char* pTarget, int pPairs,
              const unsigned char* pAhead) {
  constexpr int kPerPairLoop = 4 * kLanes;
  const int done = pPairs / kPerPairLoop * kPerPairLoop;
  const auto blocks = [&](auto pCount, int pFirst) {
    constexpr int kCount = decltype(pCount)::kValue;
    constexpr int kBytes = 12 * kPerPairLoop;
    const auto block = [&](auto pIndex) {
      constexpr int kIndex = decltype(pIndex)::kValue;
      if constexpr (kPrefetch) {
        prefetch<kIndex * kBytes, (kIndex + 1) * kBytes>(pAhead + 12 * pFirst);
      }
      const int i = pFirst + kIndex * kPerPairLoop;
      pairBlock<2>(pLeft + 12 * i, pTarget + 4 * i);
    };
    block(Step<0>());
    if constexpr (kCount == 4) {
      block(Step<1>());
      block(Step<2>());
      block(Step<3>());
    }
  };
  int i = 0;
  for (; i + 4 * kPerPairLoop <= done; i += 4 * kPerPairLoop) blocks(Step<4>(), i);
  for (; i < done; i += kPerPairLoop) blocks(Step<1>(), i);
  return done;
}

}  // namespace

int pairRow(const unsigned char* pLeft, const unsigned char* pRight, int pStep,
            unsigned char* pTarget, int pPairs) {
  constexpr int kPerPairLoop = 4 * kLanes;
  const int done = pPairs / kPerPairLoop * kPerPairLoop;
  const auto is = [&](auto pRatio) {
    using Layout = PairLayout<decltype(pRatio)::kValue>;
    return pStep == Layout::kStep && pRight == pLeft + Layout::kRight;
  };
  if (is(Step<1>())) {
    for (int i = 0; i < done; i += kPerPairLoop) pairBlock<1>(pLeft + 6 * i, pTarget + 4 * i);
    return done;
  }
  if (is(Step<2>())) return ratio2Row<false>(pLeft, pTarget, pPairs, pLeft);
  if (is(Step<4>())) return Sampling<4>::row<false>(pLeft, pTarget, pPairs, pLeft);
  if (is(Step<8>())) return Sampling<8>::row<false>(pLeft, pTarget, pPairs, pLeft);
  return 0;
}

int pairRows(const PairRows& pRows) {
  const auto is = [&](auto pRatio) {
    using Layout = PairLayout<decltype(pRatio)::kValue>;
    return pRows.fStep == Layout::kStep && pRows.fRight == Layout::kRight;
  };
  if (is(Step<2>())) return eachPairRow(pRows, ratio2Row<true>);
  if (is(Step<4>())) return eachPairRow(pRows, Sampling<4>::row<true>);
  if (is(Step<8>())) return eachPairRow(pRows, Sampling<8>::row<true>);
  return 0;
}
