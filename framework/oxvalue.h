// OXValue: the variant value that crosses the broker (invalid, bool, int, float, string, array,
// binary). Reading a value as another kind, or indexing out of range, throws OXError.
#pragma once

#include <initializer_list>
#include <string>
#include <variant>
#include <vector>

namespace OX {

class OXValue {
 public:
  enum Type { TypeInvalid = 0, TypeBool, TypeInt, TypeFloat, TypeString, TypeArray, TypeBinary };
  using Binary = std::vector<unsigned char>;
  using Array = std::vector<OXValue>;

  OXValue() = default;
  OXValue(const OXValue&) = default;
  OXValue(OXValue&&) noexcept = default;
  OXValue(bool pValue) : fData(pValue) {}
  OXValue(int pValue) : fData(pValue) {}
  OXValue(float pValue) : fData(pValue) {}
  OXValue(double pValue) : fData(static_cast<float>(pValue)) {}
  OXValue(const std::string& pValue) : fData(pValue) {}
  OXValue(std::string&& pValue) : fData(std::move(pValue)) {}
  OXValue(const char* pValue) : fData(std::string(pValue)) {}
  OXValue(char* pValue) : fData(std::string(pValue)) {}
  OXValue(const std::vector<int>& pValues);
  OXValue(const std::vector<float>& pValues);
  OXValue(const std::vector<std::string>& pValues);
  OXValue(const Array& pValues) : fData(pValues) {}
  OXValue(Array&& pValues) : fData(std::move(pValues)) {}
  // A pointer would otherwise silently become a bool.
  template <class T>
  OXValue(T*) = delete;

  // A binary value holding a copy of pSize bytes.
  static OXValue binary(const void* pData, int pSize);
  // A binary value that takes over these bytes.
  static OXValue binary(Binary&& pBytes);
  // An array of these elements (an empty array for an empty list), e.g. call arguments.
  static OXValue array(std::initializer_list<OXValue> pElements);

  OXValue& operator=(const OXValue&) = default;
  OXValue& operator=(OXValue&&) noexcept = default;
  // Assignment from bool, int, float, strings and vectors goes through the constructors above,
  // so that a string literal can never be taken for a bool.

  // Reading as a kind. The const int, bool and float forms also accept an int where a bool or a
  // float is read; everything else must be of the kind read.
  explicit operator int&();
  explicit operator std::string&();
  explicit operator bool() const;
  explicit operator int() const;
  explicit operator float() const;
  explicit operator const std::string&() const;
  explicit operator std::vector<int>() const;
  explicit operator std::vector<float>() const;
  bool asBool() const { return static_cast<bool>(*this); }
  int asInt() const { return static_cast<int>(*this); }
  float asFloat() const { return static_cast<float>(*this); }
  const std::string& asString() const { return static_cast<const std::string&>(*this); }

  // Element access; throws on a value that is no array and on an index out of range.
  OXValue& operator[](int pIndex);
  const OXValue& operator[](int pIndex) const;

  // Makes the value an array (an invalid value becomes an empty one) of exactly pSize elements.
  void arraySetSize(int pSize);
  // Makes the value an array of at least pSize elements; new elements are invalid.
  void arrayReserve(int pSize);
  // Appends an element, making an invalid value an array first.
  void arrayPush(const OXValue& pValue);
  // Elements of an array, bytes of a binary or string, 0 for an invalid value; throws otherwise.
  int getSize() const;

  Type getType() const { return static_cast<Type>(fData.index()); }
  static std::string TypeToString(Type pType);
  bool isValid() const { return getType() != TypeInvalid; }
  bool isArray() const { return getType() == TypeArray; }
  bool isBinary() const { return getType() == TypeBinary; }
  bool isString() const { return getType() == TypeString; }
  bool isInt() const { return getType() == TypeInt; }
  bool isBool() const { return getType() == TypeBool; }
  bool isFloat() const { return getType() == TypeFloat; }

  // Makes the value a binary holding a copy of the bytes.
  void SetBinary(const void* pData, int pSize);
  // The bytes of a binary value; throws for other kinds.
  const void* GetBinary() const;
  void* GetBinary();
  // The bytes of a binary value as a vector; throws for other kinds.
  const Binary& binaryBytes() const;

  // Fills pResult from an array of numbers (ints and floats). With pClear the vector is emptied
  // first, otherwise the numbers are appended. Returns false, leaving pResult as it was, when the
  // value is no array of numbers. Never throws.
  bool ToFloatArray(std::vector<float>& pResult, bool pClear = true) const;

  bool operator==(const OXValue& pOther) const;
  bool operator!=(const OXValue& pOther) const { return !(*this == pOther); }

  // A readable text: 12, 1.5, true, "text", [1, 2], <binary 640 bytes>, <invalid>.
  std::string toString() const;

 private:
  [[noreturn]] void throwKind(const char* pWanted) const;

  std::variant<std::monostate, bool, int, float, std::string, Array, Binary> fData;
};

}  // namespace OX
