// OXValue: the variant value that crosses the broker (invalid, bool, int, float, string, array,
// binary). Reading a value as another kind, or indexing out of range, throws OXError.
#pragma once

#include <cstddef>
#include <cstdint>
#include <initializer_list>
#include <memory>
#include <string>
#include <variant>
#include <vector>

namespace OX {

// Storage for large binaries other than the heap: the shared-memory area through which the reply
// of a remote call reaches a client on the broker's machine (net/oxsharedmemory.h), or one block
// of bytes that several binaries share read-only (OXBinary::shared). The arena knows which of its
// rooms are still held by a binary, never hands them out again until they are given back, and
// stays alive until then.
class OXBinaryArena {
 public:
  virtual ~OXBinaryArena() = default;
  // Room for pSize bytes and the ticket that gives it back, or null when the arena has none or
  // does not take binaries of that size. pContent, when not 0, names the bytes the caller is
  // about to copy there (OXBinary::newContentKey); pHolds comes back true when the room still
  // holds exactly those bytes from an earlier copy, which can then be skipped. Thread-safe.
  virtual unsigned char* reserve(std::size_t pSize, std::uint64_t pContent, std::uint64_t& pTicket,
                                 bool& pHolds) = 0;
  // The binary that held the room of pTicket is gone, whether or not the arena has passed the
  // room on since; called once for every room reserved. Thread-safe.
  virtual void giveBack(std::uint64_t pTicket) noexcept = 0;
  // Whether the arena's rooms are shared read-only: a copy of a binary there shares the room
  // (taking a ticket of its own), and writing to it first makes a heap copy. Such an arena
  // hands out tickets through share().
  virtual bool shares() const noexcept { return false; }
  virtual std::uint64_t share() noexcept { return 0; }
};

// The bytes of a binary value: on the heap, or in a room of an arena. A copy lands on the heap,
// so that only the value an arena's room was made for can ever live there, except for shared
// bytes, which are read-only and which a copy shares; moving hands the room over, and the last
// holder gives it back. As small as a std::string, so that an OXValue stays 40 bytes.
class OXBinary {
 public:
  using value_type = unsigned char;
  using const_iterator = const unsigned char*;

  OXBinary() : fHeap() {}
  // pSize zero bytes.
  explicit OXBinary(std::size_t pSize) : fHeap(pSize) {}
  OXBinary(const unsigned char* pFirst, const unsigned char* pLast) : fHeap(pFirst, pLast) {}
  // Takes the vector's storage over.
  OXBinary(std::vector<unsigned char>&& pBytes) noexcept : fHeap(std::move(pBytes)) {}
  OXBinary(const std::vector<unsigned char>& pBytes) : fHeap(pBytes) {}
  OXBinary(const OXBinary& pOther);
  OXBinary(OXBinary&& pOther) noexcept;
  OXBinary& operator=(const OXBinary& pOther);
  OXBinary& operator=(OXBinary&& pOther) noexcept;
  ~OXBinary();

  // A copy of pSize bytes in a room of pArena when it has one, on the heap otherwise.
  static OXBinary copyInto(OXBinaryArena* pArena, const void* pData, std::size_t pSize);
  // A copy of pSize bytes that every copy of the binary shares, read-only: made once, handed to
  // any number of values (a frame that many replies carry).
  static OXBinary shared(const void* pData, std::size_t pSize);
  // A key no other call returns, naming bytes that may be copied again unchanged (see
  // OXValue::replyBinary). Never 0.
  static std::uint64_t newContentKey();

  const unsigned char* data() const { return fArena ? fRoom.fData : fHeap.data(); }
  // Writable bytes: shared ones are first copied to the heap, so that no other holder sees the
  // change.
  unsigned char* data() {
    if (fArena != nullptr && fArena->shares()) unshare();
    return fArena ? fRoom.fData : fHeap.data();
  }
  std::size_t size() const { return fArena ? fRoom.fSize : fHeap.size(); }
  bool empty() const { return size() == 0; }
  const_iterator begin() const { return data(); }
  const_iterator end() const { return data() + size(); }
  unsigned char operator[](std::size_t pIndex) const { return data()[pIndex]; }
  // Whether the bytes live in an arena's room, and whether they are shared (read-only).
  bool inArena() const { return fArena != nullptr; }
  bool isShared() const { return fArena != nullptr && fArena->shares(); }

  friend bool operator==(const OXBinary& pLeft, const OXBinary& pRight);
  friend bool operator!=(const OXBinary& pLeft, const OXBinary& pRight) {
    return !(pLeft == pRight);
  }

 private:
  struct Room {
    unsigned char* fData;
    std::size_t fSize;
    std::uint64_t fTicket;
  };
  // Gives the room back, if any, and leaves an empty heap binary.
  void leaveRoom() noexcept;
  // From a heap binary to pArena's pRoom.
  void enterRoom(OXBinaryArena* pArena, const Room& pRoom) noexcept;
  // From shared bytes to a heap copy of them.
  void unshare();
  // pSize bytes copied (unless it holds them) into a room of pArena: false when it has none.
  static bool intoRoom(OXBinaryArena* pArena, const void* pData, std::size_t pSize,
                       std::uint64_t pContent, OXBinary& pBinary);
  friend class OXValue;

  union {
    std::vector<unsigned char> fHeap;  // without an arena
    Room fRoom;                        // with one
  };
  OXBinaryArena* fArena = nullptr;
};

// The arena of the reply that the calling thread is building, until the scope ends: the broker
// host sets it while it runs a remote call of a client that reads its replies from a
// shared-memory area. Only a result handed straight back to that client may be made there
// (OXValue::replyBinary); whatever is kept, copied or made by anyone else stays on the heap.
// Scopes nest; the innermost one counts, and a null arena means none.
class OXReplyArenaScope {
 public:
  explicit OXReplyArenaScope(std::shared_ptr<OXBinaryArena> pArena);
  ~OXReplyArenaScope();
  OXReplyArenaScope(const OXReplyArenaScope&) = delete;
  OXReplyArenaScope& operator=(const OXReplyArenaScope&) = delete;

 private:
  std::shared_ptr<OXBinaryArena> fArena;  // alive while its scope is
  OXBinaryArena* fOuter;
};

class OXValue {
 public:
  enum Type { TypeInvalid = 0, TypeBool, TypeInt, TypeFloat, TypeString, TypeArray, TypeBinary };
  using Binary = OXBinary;
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
  // A binary value holding a copy of pSize bytes, made for the reply of the remote call that the
  // calling thread serves: in that reply's arena (OXReplyArenaScope) when it has room, on the
  // heap otherwise. Only for a result that goes straight back to the caller, never for a value
  // that anything keeps.
  static OXValue replyBinary(const void* pData, int pSize);
  // The same for bytes that many replies may carry unchanged, such as a frame, named by pContent
  // (OXBinary::newContentKey): in the reply's arena when it has room, where they are not written
  // again if the room still holds them; otherwise shared (OXBinary::shared) with pShared when it
  // holds pContent's bytes, or a new shared copy, left in pShared for the next reply. pShared is
  // the caller's to keep between replies, and must hold pContent's bytes or be empty.
  static OXValue replyBinary(const void* pData, int pSize, std::uint64_t pContent,
                             OXBinary& pShared);
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
