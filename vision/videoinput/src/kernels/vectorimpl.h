// The body of the vector kernels, shared by the instruction sets: each of
// vector<set>.cpp includes it inside its own namespace, after defining on its vector
// type V (kLanes lanes of 16 bytes) the operations used here. Every lane converts a block of its
// own and no operation crosses lanes, so the code is the same for any number of lanes. Nothing
// here has external linkage but the kernels declared in vector.h, and no header is
// included: no code built for one instruction set can be picked by the linker for another file.
//
// The arithmetic is that of the reference kernels, exactly: sums in 16-bit lanes, split where
// they would leave 16 bits, or kept where a wrap-around is harmless because the true sum is known
// to fit; shifts floor like the reference's; saturating packs clamp.
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

// The lane's four source macro-pixels as 16 contiguous bytes: every second one at step 2.
template <int kStep>
inline V block(const unsigned char* pSource) {
  if constexpr (kStep == 1) {
    return lanes(pSource, 16);
  } else {
    return evenDwords(lanes(pSource, 32), lanes(pSource + 16, 32));
  }
}

// Runs pBody on the whole blocks of the row at step 1 or 2 and returns the macro-pixels done.
// The loads of a block end at the last byte of its last macro-pixel (at step 2, 4 bytes into the
// macro-pixel after it), which the reference does not read when it stops short of it (kYuv at
// step 1, every kernel at step 2): then one more macro-pixel must follow.
template <int kTargetBytes, bool kReadsWholeMacroPixel, class Body>
int rows(const unsigned char* pSource, int pStep, unsigned char* pTarget, int pCount, Body pBody) {
  if (pStep != 1 && pStep != 2) return 0;
  const int usable = pStep == 1 && kReadsWholeMacroPixel ? pCount : pCount - 1;
  const int done = usable <= 0 ? 0 : usable / kPerLoop * kPerLoop;
  for (int i = 0; i < done; i += kPerLoop) {
    if (pStep == 1) {
      pBody(Step<1>(), pSource + 4 * i, pTarget + kTargetBytes * i);
    } else {
      pBody(Step<2>(), pSource + 8 * i, pTarget + kTargetBytes * i);
    }
  }
  return done;
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
  return rows<6, true>(
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

// --- RGB pairs to YUV422: eight pairs per lane ---

constexpr int kPairs = 8;

// The four pixels of the lane's pairs 2k and 2k + 1 as 12 contiguous bytes; kPairBytes is the
// distance between pairs, 6 when they touch, 12 when every second pixel is skipped.
template <int kPairBytes>
inline V fourPixels(const unsigned char* pPair) {
  if constexpr (kPairBytes == 6) {
    return lanes(pPair, kPairs * 6);
  } else {
    return or128(shuffle8(lanes(pPair, kPairs * 12),
                          mask(0, 1, 2, 6, 7, 8, 12, 13, 14, kZ, kZ, kZ, kZ, kZ, kZ, kZ)),
                 shuffle8(lanes(pPair + 8, kPairs * 12),
                          mask(kZ, kZ, kZ, kZ, kZ, kZ, kZ, kZ, kZ, 10, 11, 12, kZ, kZ, kZ, kZ)));
  }
}

// ((products + offset) >> 8) in unsigned 16 bits: the true sums lie in [0, 65535].
inline V component(V pRedBlue, V pRedBlueBytes, V pGreen, short pGreenFactor, short pOffset) {
  return srli16<8>(
      add16(add16(maddubs(pRedBlue, pRedBlueBytes), mullo16(pGreen, splat16(pGreenFactor))),
            splat16(pOffset)));
}

template <int kPairBytes>
inline void pairBlock(const unsigned char* pLeft, unsigned char* pTarget) {
  // Per two pairs: red of both left pixels, of both right pixels, then green, then blue.
  const V spread = mask(0, 6, 3, 9, 1, 7, 4, 10, 2, 8, 5, 11, kZ, kZ, kZ, kZ);
  V d[4];
  for (int k = 0; k < 4; ++k) {
    d[k] = shuffle8(fourPixels<kPairBytes>(pLeft + 2 * kPairBytes * k), spread);
  }
  const V low01 = unpacklo16(d[0], d[1]), high01 = unpackhi16(d[0], d[1]);
  const V low23 = unpacklo16(d[2], d[3]), high23 = unpackhi16(d[2], d[3]);
  // Eight left values then eight right values of one channel.
  const V red = unpacklo32(low01, low23);
  const V green = unpackhi32(low01, low23);
  const V blue = unpacklo32(high01, high23);
  const V zero = splat32(0);
  const V redBlueLeft = unpacklo8(red, blue), redBlueRight = unpackhi8(red, blue);
  const V greenLeft = unpacklo8(green, zero), greenRight = unpackhi8(green, zero);
  // 66 R + 129 G + 25 B + 128, then + 16 after the shift: 4224 = 128 + 16 * 256. U and V add
  // 128 + 128 * 256 = 32896, which also makes their sums positive.
  const V lumaBytes = pair8(66, 25), uBytes = pair8(-38, 112), vBytes = pair8(112, -18);
  const V lumaLeft = component(redBlueLeft, lumaBytes, greenLeft, 129, 4224);
  const V lumaRight = component(redBlueRight, lumaBytes, greenRight, 129, 4224);
  const short chromaOffset = static_cast<short>(32896);
  const V u = srli16<1>(add16(component(redBlueLeft, uBytes, greenLeft, -74, chromaOffset),
                              component(redBlueRight, uBytes, greenRight, -74, chromaOffset)));
  const V v = srli16<1>(add16(component(redBlueLeft, vBytes, greenLeft, -94, chromaOffset),
                              component(redBlueRight, vBytes, greenRight, -94, chromaOffset)));
  const V first = or128(lumaLeft, slli16<8>(u));    // Y0 U
  const V second = or128(lumaRight, slli16<8>(v));  // Y1 V
  store32(pTarget, unpacklo16(first, second), unpackhi16(first, second));
}

}  // namespace

int yuvRow(const unsigned char* pSource, int pStep, unsigned char* pTarget, int pCount) {
  return rows<2, false>(
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
  return rows<4, true>(
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
  return rows<6, true>(
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

int pairRow(const unsigned char* pLeft, const unsigned char* pRight, int pStep,
            unsigned char* pTarget, int pPairs) {
  // The loads of a block reach into the pair after it, which the reference reads only if it
  // exists: one more must follow.
  constexpr int kPerPairLoop = kPairs * kLanes;
  const int done = pPairs <= 1 ? 0 : (pPairs - 1) / kPerPairLoop * kPerPairLoop;
  if (pStep == 6 && pRight == pLeft + 3) {
    for (int i = 0; i < done; i += kPerPairLoop) pairBlock<6>(pLeft + 6 * i, pTarget + 4 * i);
  } else if (pStep == 12 && pRight == pLeft + 6) {
    for (int i = 0; i < done; i += kPerPairLoop) pairBlock<12>(pLeft + 12 * i, pTarget + 4 * i);
  } else {
    return 0;
  }
  return done;
}
