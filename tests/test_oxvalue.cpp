// OXValue kinds and conversions, OXImage and its array form, oxtypes.h functions, OXError.
#include <gtest/gtest.h>

#include <cstring>
#include <tuple>
#include <type_traits>
#include <vector>

#include "oxerror.h"
#include "oximage.h"
#include "oxtypes.h"
#include "oxvalue.h"
#include "testsupport.h"

namespace {

using OX::OXImage;
using OX::OXValue;

OXValue array(std::initializer_list<OXValue> pValues) {
  return OXValue::array(pValues);
}

// A conversion that silently turned one kind into another would corrupt every broker call.
TEST(OXValueTest, ReadsEachKindAndRefusesAnyOther) {
  const OXValue one(1);
  EXPECT_TRUE(static_cast<bool>(one));
  EXPECT_FALSE(static_cast<bool>(OXValue(0)));
  EXPECT_EQ(static_cast<float>(one), 1.0f);
  EXPECT_EQ(OXValue(2.5).asFloat(), 2.5f);
  EXPECT_THROW(OXValue(true).asInt(), OX::OXError);
  EXPECT_THROW(OXValue(1.5f).asInt(), OX::OXError);
  EXPECT_THROW(OXValue(1.5f).asBool(), OX::OXError);
  EXPECT_THROW(OXValue("7").asFloat(), OX::OXError);
  EXPECT_THROW(OXValue(7).asString(), OX::OXError);
  EXPECT_THROW(OXValue().asInt(), OX::OXError);
  EXPECT_STREQ(vitest::raised([] { OXValue("7").asInt(); }).what(),
               "cannot read a value of type string as int");
  // The writable form reaches the stored int and accepts no other kind.
  OXValue number(3);
  static_cast<int&>(number) = 4;
  EXPECT_EQ(number.asInt(), 4);
  OXValue flag(true);
  EXPECT_THROW(static_cast<int&>(flag) = 1, OX::OXError);
  EXPECT_EQ(static_cast<std::vector<int>>(OXValue(std::vector<int>{1, 2})),
            (std::vector<int>{1, 2}));
  EXPECT_THROW(static_cast<std::vector<int>>(array({1, 2.5f})), OX::OXError);

  // A string literal or a const char* is a string, never a bool; other pointers do not compile.
  const char* pointer = "pointer";
  EXPECT_TRUE(OXValue(pointer).isString());
  OXValue assigned = 1;
  assigned = "literal";
  EXPECT_EQ(assigned, OXValue(std::string("literal")));
  static_assert(!std::is_constructible_v<OXValue, int*>);
  static_assert(!std::is_constructible_v<OXValue, const void*>);
}

// Array and binary handling is where sizes, copies and kinds can go wrong.
TEST(OXValueTest, ArraysBinariesFloatArraysEqualityAndText) {
  OXValue value;
  EXPECT_THROW(value[0], OX::OXError);
  value.arraySetSize(3);
  EXPECT_FALSE(value[2].isValid());
  EXPECT_THROW(value[3], OX::OXError);
  EXPECT_THROW(value[-1], OX::OXError);
  EXPECT_THROW(static_cast<const OXValue&>(value)[3], OX::OXError);
  value[1] = 5;
  value.arraySetSize(2);
  EXPECT_EQ(value, array({OXValue(), 5}));
  value.arrayReserve(4);
  value.arrayReserve(1);
  value.arrayPush("last");
  EXPECT_EQ(value, array({OXValue(), 5, OXValue(), OXValue(), "last"}));
  EXPECT_THROW(value.arraySetSize(-1), OX::OXError);
  OXValue scalar(1);
  EXPECT_THROW(scalar[0], OX::OXError);
  EXPECT_THROW(scalar.arraySetSize(1), OX::OXError);
  EXPECT_THROW(scalar.arrayReserve(1), OX::OXError);
  EXPECT_THROW(scalar.arrayPush(2), OX::OXError);
  OXValue pushed;
  pushed.arrayPush(1);
  EXPECT_EQ(pushed, array({1}));

  unsigned char bytes[3] = {1, 2, 3};
  OXValue binary;
  binary.SetBinary(bytes, 3);
  bytes[0] = 9;
  ASSERT_EQ(binary.getSize(), 3);
  EXPECT_EQ(static_cast<const unsigned char*>(binary.GetBinary())[0], 1);
  EXPECT_THROW(OXValue("abc").GetBinary(), OX::OXError);
  EXPECT_THROW(static_cast<const OXValue&>(scalar).GetBinary(), OX::OXError);
  // Shared bytes (one copy of a frame behind many replies): copies share them without copying,
  // and whoever writes gets bytes of its own, leaving the other holders' unchanged.
  const OXValue shared = OXValue::binary(OXValue::Binary::shared(bytes, 3));
  OXValue sharing = shared;
  EXPECT_EQ(static_cast<const OXValue&>(sharing).GetBinary(), shared.GetBinary());
  static_cast<unsigned char*>(sharing.GetBinary())[1] = 7;
  EXPECT_NE(static_cast<const OXValue&>(sharing).GetBinary(), shared.GetBinary());
  EXPECT_EQ(shared, OXValue::binary(bytes, 3));
  EXPECT_FALSE(sharing.binaryBytes().isShared());
  EXPECT_EQ(static_cast<const unsigned char*>(sharing.GetBinary())[1], 7);

  std::vector<float> floats{7.0f};
  EXPECT_TRUE(array({1, 2.5f}).ToFloatArray(floats));
  EXPECT_TRUE(array({3}).ToFloatArray(floats, false));
  EXPECT_EQ(floats, (std::vector<float>{1.0f, 2.5f, 3.0f}));
  EXPECT_FALSE(array({1, "x"}).ToFloatArray(floats));
  EXPECT_FALSE(OXValue(1).ToFloatArray(floats));
  EXPECT_EQ(floats.size(), 3u);

  EXPECT_NE(OXValue(1), OXValue(1.0f));
  EXPECT_NE(OXValue(1), OXValue(true));
  EXPECT_NE(OXValue(), OXValue(0));
  EXPECT_NE(array({1, "a"}), array({1, "b"}));
  EXPECT_EQ(array({12, 1.5f, true, "text", array({1, 2}), binary, OXValue()}).toString(),
            "[12, 1.5, true, \"text\", [1, 2], <binary 3 bytes>, <invalid>]");
}

// Format changes must never reallocate, or pointers held by readers of the image would dangle.
TEST(OXImageTest, FormatChangesKeepTheAllocation) {
  OXImage image(OX::kQVGA, OX::kYuv);
  EXPECT_EQ(std::make_tuple(image.fWidth, image.fHeight, image.getAllocatedSize()),
            std::make_tuple(320, 240, 320 * 240));
  unsigned char* const data = image.fData;
  EXPECT_TRUE(image.setResolution(OX::kQQVGA));
  EXPECT_TRUE(image.setColorSpace(OX::kYUV422));
  EXPECT_EQ(image.getSize(), 160 * 120 * 2);
  for (int resolution : {int(OX::kVGA), 99}) EXPECT_FALSE(image.setResolution(resolution));
  EXPECT_TRUE(image.setColorSpace(OX::kRGB));  // 160 x 120 x 3 still fits
  EXPECT_FALSE(image.setResolution(OX::kQVGA));
  EXPECT_FALSE(image.setFormat(320, 240, OX::kYUV422));
  EXPECT_EQ(std::make_tuple(image.fWidth, image.fColorSpace, image.fNbLayers, image.fData,
                            image.getAllocatedSize()),
            std::make_tuple(160, int(OX::kRGB), 3, data, 320 * 240));

  EXPECT_EQ(OXImage(10, 4, OX::kBGR, false).getAllocatedSize(), 120);
  using P = std::pair<int, int>;  // colour space, layers
  for (const auto& [colorSpace, layers] : {P{0, 1}, P{6, 1}, P{9, 2}, P{14, 2}, P{10, 3}, P{11, 3},
                                           P{12, 3}, P{13, 3}, P{15, 3}, P{16, 3}}) {
    EXPECT_EQ(OX::getNumLayersFromColorSpace(colorSpace), layers) << colorSpace;
    EXPECT_EQ(OXImage(1, 1, colorSpace, true).fNbLayers, layers) << colorSpace;
  }

  // External data: nothing allocated, nothing checked, nothing freed (pixels is on the stack).
  unsigned char pixels[16] = {};
  {
    OXImage external(OX::kQVGA, OX::kRGB, true);
    EXPECT_EQ(external.fData, nullptr);
    EXPECT_EQ(external.getAllocatedSize(), 0);
    EXPECT_FALSE(external.reserve(16));
    EXPECT_TRUE(external.setData(pixels));
    EXPECT_TRUE(external.setResolution(OX::k4VGA));
  }
  EXPECT_FALSE(image.setData(pixels));
}

// The array form crosses the broker: its layout and the 64-bit time stamp split must survive.
TEST(OXImageTest, ArrayFormRoundTripsAndRefusesOtherLayouts) {
  OXImage image(4, 2, OX::kYUV422, false, 0.5f, 0.25f, -0.5f, -0.25f);
  for (int i = 0; i < image.getSize(); ++i) image.fData[i] = static_cast<unsigned char>(i);
  image.fTimeStamp = (int64_t(5) << 32) + 7;
  image.fCameraId = -3;
  OXValue value = image.toOXValue();
  EXPECT_EQ(value, array({4, 2, 2, OX::kYUV422, 5, 7, OXValue::binary(image.fData, 16), -3, 0.5f,
                          0.25f, -0.5f, -0.25f}));

  OXImage copy(OX::kQQVGA, OX::kRGB);
  unsigned char* const copyData = copy.fData;
  ASSERT_TRUE(copy.fromOXValue(value));
  EXPECT_EQ(copy.fData, copyData);
  EXPECT_EQ(copy.toOXValue(), value);

  image.fTimeStamp = -5;
  value = image.toOXValue();
  EXPECT_EQ(value[4], OXValue(-1));
  EXPECT_EQ(value[5], OXValue(-5));
  ASSERT_TRUE(copy.fromOXValue(value));
  EXPECT_EQ(copy.fTimeStamp, -5);

  std::vector<OXValue> refused(8, value);
  refused[0] = OXValue(1);
  refused[1].arraySetSize(11);
  refused[2][0] = "4";
  refused[3][2] = 3;  // layers of another colour space
  refused[4][6] = OXValue::binary(image.fData, 15);
  refused[5][8] = "0.5";
  refused[6][6] = 1;
  refused[7][0] = -4;
  for (size_t i = 0; i < refused.size(); ++i) {
    OXImage target(OX::kQQVGA, OX::kYuv);
    EXPECT_FALSE(target.fromOXValue(refused[i])) << i;
    EXPECT_EQ(target.fWidth, 160) << i;
    EXPECT_EQ(target.fColorSpace, OX::kYuv) << i;
  }
  EXPECT_FALSE(OXImage(OX::kQQVGA, OX::kYuv, true).fromOXValue(value));  // external, no pixels

  // An owning image grows to hold bigger pixels.
  OXImage small(2, 2, OX::kYuv, false);
  ASSERT_TRUE(small.fromOXValue(value));
  EXPECT_GE(small.getAllocatedSize(), 16);
  EXPECT_EQ(small.toOXValue(), value);
}

// The free functions feed resolution handling and method descriptions; OXError carries context.
TEST(OXTypesTest, FreeFunctionsAndOXError) {
  int width = 0;
  int height = 0;
  OX::setSizeFromResolution(OX::k4VGA, width, height);
  EXPECT_EQ(std::make_pair(width, height), std::make_pair(1280, 960));
  OX::setSizeFromResolution(7, width, height);
  EXPECT_EQ(std::make_pair(width, height), std::make_pair(-1, -1));
  EXPECT_EQ(OX::getResolutionFromSize(160, 120), OX::kQQVGA);
  EXPECT_EQ(OX::getResolutionFromSize(640, 480), OX::kVGA);
  EXPECT_EQ(OX::getResolutionFromSize(640, 481), -1);
  EXPECT_EQ(OX::DecToString(-12), "-12");
  using N = std::pair<int, std::string>;
  for (const auto& [code, name] :
       {N{1, "void"}, N{2, "bool"}, N{3, "int"}, N{4, "float"}, N{5, "string"}, N{6, "OXValue"},
        N{24, "std::vector<float>"}, N{27, "OXImage*"}, N{0, "unknown"}}) {
    EXPECT_EQ(OX::getTypeString(code), name) << code;
  }

  const OX::OXError error("Camera", "open", "no device", "vision/camera", 42);
  EXPECT_STREQ(error.what(), "no device");
  EXPECT_EQ(error.toString(), "Camera::open: no device (vision/camera:42)");
  EXPECT_EQ(OX::OXError("M", "f", "d", "", 0).toString(), "M::f: d");
}

}  // namespace
