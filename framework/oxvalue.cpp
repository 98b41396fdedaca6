// OXValue: kinds, conversions, arrays, binaries and text form.
#include "oxvalue.h"

#include <atomic>
#include <cstring>
#include <new>
#include <sstream>

#include "oxerror.h"

namespace OX {

// The decode budget of a message counts on an element's size (net/oxwire.h).
static_assert(sizeof(OXBinary) <= sizeof(std::string), "a binary is no larger than a string");

namespace {

// The arena of the innermost OXReplyArenaScope of this thread; a scope never crosses threads.
thread_local OXBinaryArena* tReplyArena = nullptr;

std::atomic<std::uint64_t> gContentKeys{0};

// One block of bytes that several binaries read: each holder has a ticket, the last one given
// back frees the block.
class SharedBytes final : public OXBinaryArena {
 public:
  SharedBytes(const unsigned char* pFirst, std::size_t pSize) : fBytes(pFirst, pFirst + pSize) {}
  unsigned char* data() { return fBytes.data(); }

  unsigned char* reserve(std::size_t, std::uint64_t, std::uint64_t&, bool&) override {
    return nullptr;
  }
  void giveBack(std::uint64_t) noexcept override {
    if (fHolders.fetch_sub(1, std::memory_order_acq_rel) == 1) delete this;
  }
  bool shares() const noexcept override { return true; }
  std::uint64_t share() noexcept override {
    fHolders.fetch_add(1, std::memory_order_relaxed);
    return 0;
  }

 private:
  std::vector<unsigned char> fBytes;
  std::atomic<long> fHolders{1};
};

}  // namespace

OXBinary::OXBinary(const OXBinary& pOther) : fHeap() {
  if (pOther.fArena != nullptr && pOther.fArena->shares()) {
    Room room = pOther.fRoom;
    room.fTicket = pOther.fArena->share();
    enterRoom(pOther.fArena, room);
  } else {
    fHeap.assign(pOther.begin(), pOther.end());
  }
}

OXBinary::OXBinary(OXBinary&& pOther) noexcept : fHeap() {
  *this = std::move(pOther);
}

OXBinary::~OXBinary() {
  leaveRoom();
  fHeap.~vector();
}

OXBinary& OXBinary::operator=(const OXBinary& pOther) {
  if (this == &pOther) return *this;
  OXBinary copy(pOther);
  return *this = std::move(copy);
}

OXBinary& OXBinary::operator=(OXBinary&& pOther) noexcept {
  if (this == &pOther) return *this;
  leaveRoom();
  if (pOther.fArena != nullptr) {
    enterRoom(pOther.fArena, pOther.fRoom);
    pOther.fArena = nullptr;  // the room is this one's now
    new (&pOther.fHeap) std::vector<unsigned char>();
  } else {
    fHeap = std::move(pOther.fHeap);
    pOther.fHeap.clear();
  }
  return *this;
}

void OXBinary::leaveRoom() noexcept {
  if (fArena == nullptr) return;
  OXBinaryArena* arena = fArena;
  const std::uint64_t ticket = fRoom.fTicket;
  fArena = nullptr;
  new (&fHeap) std::vector<unsigned char>();
  arena->giveBack(ticket);
}

void OXBinary::enterRoom(OXBinaryArena* pArena, const Room& pRoom) noexcept {
  fHeap.~vector();
  fRoom = pRoom;
  fArena = pArena;
}

void OXBinary::unshare() {
  std::vector<unsigned char> bytes(fRoom.fData, fRoom.fData + fRoom.fSize);
  leaveRoom();
  fHeap = std::move(bytes);
}

bool OXBinary::intoRoom(OXBinaryArena* pArena, const void* pData, std::size_t pSize,
                        std::uint64_t pContent, OXBinary& pBinary) {
  std::uint64_t ticket = 0;
  bool holds = false;
  unsigned char* room =
      pArena != nullptr && pSize > 0 ? pArena->reserve(pSize, pContent, ticket, holds) : nullptr;
  if (room == nullptr) return false;
  if (!holds) std::memcpy(room, pData, pSize);
  pBinary.leaveRoom();
  pBinary.enterRoom(pArena, {room, pSize, ticket});
  return true;
}

OXBinary OXBinary::copyInto(OXBinaryArena* pArena, const void* pData, std::size_t pSize) {
  OXBinary binary;
  if (intoRoom(pArena, pData, pSize, 0, binary)) return binary;
  const auto* first = static_cast<const unsigned char*>(pData);
  return OXBinary(first, first + pSize);
}

OXBinary OXBinary::shared(const void* pData, std::size_t pSize) {
  auto* block = new SharedBytes(static_cast<const unsigned char*>(pData), pSize);
  OXBinary binary;
  binary.enterRoom(block, {block->data(), pSize, 0});
  return binary;
}

std::uint64_t OXBinary::newContentKey() {
  return gContentKeys.fetch_add(1, std::memory_order_relaxed) + 1;
}

bool operator==(const OXBinary& pLeft, const OXBinary& pRight) {
  return pLeft.size() == pRight.size() &&
         (pLeft.empty() || std::memcmp(pLeft.data(), pRight.data(), pLeft.size()) == 0);
}

OXReplyArenaScope::OXReplyArenaScope(std::shared_ptr<OXBinaryArena> pArena)
    : fArena(std::move(pArena)), fOuter(tReplyArena) {
  tReplyArena = fArena.get();
}

OXReplyArenaScope::~OXReplyArenaScope() {
  tReplyArena = fOuter;
}

OXValue OXValue::replyBinary(const void* pData, int pSize) {
  OXValue value;
  if (tReplyArena == nullptr || pSize <= 0 || pData == nullptr) {
    value.SetBinary(pData, pSize);
  } else {
    value.fData = OXBinary::copyInto(tReplyArena, pData, static_cast<std::size_t>(pSize));
  }
  return value;
}

OXValue OXValue::replyBinary(const void* pData, int pSize, std::uint64_t pContent,
                             OXBinary& pShared) {
  if (pSize <= 0 || pData == nullptr) return replyBinary(pData, pSize);
  const auto size = static_cast<std::size_t>(pSize);
  OXValue value;
  OXBinary bytes;
  if (!OXBinary::intoRoom(tReplyArena, pData, size, pContent, bytes)) {
    if (!pShared.isShared() || pShared.size() != size) pShared = OXBinary::shared(pData, size);
    bytes = pShared;
  }
  value.fData = std::move(bytes);
  return value;
}

OXValue::OXValue(const std::vector<int>& pValues) : fData(Array(pValues.begin(), pValues.end())) {}

OXValue::OXValue(const std::vector<float>& pValues)
    : fData(Array(pValues.begin(), pValues.end())) {}

OXValue::OXValue(const std::vector<std::string>& pValues)
    : fData(Array(pValues.begin(), pValues.end())) {}

OXValue OXValue::binary(const void* pData, int pSize) {
  OXValue value;
  value.SetBinary(pData, pSize);
  return value;
}

OXValue OXValue::binary(Binary&& pBytes) {
  OXValue value;
  value.fData = std::move(pBytes);
  return value;
}

void OXValue::throwKind(const char* pWanted) const {
  throw OXError(
      "OXValue", "conversion",
      std::string("cannot read a value of type ") + TypeToString(getType()) + " as " + pWanted,
      "framework/oxvalue", __LINE__);
}

OXValue OXValue::array(std::initializer_list<OXValue> pElements) {
  return OXValue(Array(pElements.begin(), pElements.end()));
}

OXValue::operator int&() {
  if (int* value = std::get_if<int>(&fData)) return *value;
  throwKind("int");
}

OXValue::operator std::string&() {
  if (std::string* value = std::get_if<std::string>(&fData)) return *value;
  throwKind("string");
}

OXValue::operator bool() const {
  if (const bool* value = std::get_if<bool>(&fData)) return *value;
  if (const int* value = std::get_if<int>(&fData)) return *value != 0;
  throwKind("bool");
}

OXValue::operator int() const {
  if (const int* value = std::get_if<int>(&fData)) return *value;
  throwKind("int");
}

OXValue::operator float() const {
  if (const float* value = std::get_if<float>(&fData)) return *value;
  if (const int* value = std::get_if<int>(&fData)) return static_cast<float>(*value);
  throwKind("float");
}

OXValue::operator const std::string&() const {
  if (const std::string* value = std::get_if<std::string>(&fData)) return *value;
  throwKind("string");
}

OXValue::operator std::vector<int>() const {
  const Array* array = std::get_if<Array>(&fData);
  if (array == nullptr) throwKind("vector of int");
  std::vector<int> result;
  result.reserve(array->size());
  for (const OXValue& element : *array) {
    if (!element.isInt()) throwKind("vector of int");
    result.push_back(std::get<int>(element.fData));
  }
  return result;
}

OXValue::operator std::vector<float>() const {
  std::vector<float> result;
  if (!ToFloatArray(result)) throwKind("vector of float");
  return result;
}

OXValue& OXValue::operator[](int pIndex) {
  return const_cast<OXValue&>(static_cast<const OXValue&>(*this)[pIndex]);
}

const OXValue& OXValue::operator[](int pIndex) const {
  const Array* array = std::get_if<Array>(&fData);
  if (array == nullptr) {
    throw OXError("OXValue", "operator[]",
                  "element " + std::to_string(pIndex) + " of a value of type " +
                      TypeToString(getType()) + ", which is no array",
                  "framework/oxvalue", __LINE__);
  }
  if (pIndex < 0 || static_cast<size_t>(pIndex) >= array->size()) {
    throw OXError("OXValue", "operator[]",
                  "index " + std::to_string(pIndex) + " out of range of an array of " +
                      std::to_string(array->size()) + " elements",
                  "framework/oxvalue", __LINE__);
  }
  return (*array)[static_cast<size_t>(pIndex)];
}

void OXValue::arraySetSize(int pSize) {
  if (pSize < 0) {
    throw OXError("OXValue", "arraySetSize", "negative size " + std::to_string(pSize),
                  "framework/oxvalue", __LINE__);
  }
  if (!isArray()) {
    if (isValid()) throwKind("array");
    fData = Array();
  }
  std::get<Array>(fData).resize(static_cast<size_t>(pSize));
}

void OXValue::arrayReserve(int pSize) {
  if (!isArray()) {
    if (isValid()) throwKind("array");
    fData = Array();
  }
  Array& array = std::get<Array>(fData);
  if (pSize > 0 && array.size() < static_cast<size_t>(pSize)) array.resize(pSize);
}

void OXValue::arrayPush(const OXValue& pValue) {
  if (!isArray()) {
    if (isValid()) throwKind("array");
    fData = Array();
  }
  std::get<Array>(fData).push_back(pValue);
}

int OXValue::getSize() const {
  switch (getType()) {
    case TypeInvalid:
      return 0;
    case TypeArray:
      return static_cast<int>(std::get<Array>(fData).size());
    case TypeBinary:
      return static_cast<int>(std::get<Binary>(fData).size());
    case TypeString:
      return static_cast<int>(std::get<std::string>(fData).size());
    default:
      throwKind("array, binary or string");
  }
}

std::string OXValue::TypeToString(Type pType) {
  switch (pType) {
    case TypeInvalid:
      return "invalid";
    case TypeBool:
      return "bool";
    case TypeInt:
      return "int";
    case TypeFloat:
      return "float";
    case TypeString:
      return "string";
    case TypeArray:
      return "array";
    case TypeBinary:
      return "binary";
  }
  return "unknown";
}

void OXValue::SetBinary(const void* pData, int pSize) {
  if (pSize < 0 || (pSize > 0 && pData == nullptr)) {
    throw OXError("OXValue", "SetBinary", "invalid binary of " + std::to_string(pSize) + " bytes",
                  "framework/oxvalue", __LINE__);
  }
  // One pass over the bytes: a sized vector would first be zero-filled.
  const auto* first = static_cast<const unsigned char*>(pData);
  fData = pSize > 0 ? Binary(first, first + pSize) : Binary();
}

const OXValue::Binary& OXValue::binaryBytes() const {
  const Binary* bytes = std::get_if<Binary>(&fData);
  if (bytes == nullptr) throwKind("binary");
  return *bytes;
}

const void* OXValue::GetBinary() const {
  const Binary* bytes = std::get_if<Binary>(&fData);
  if (bytes == nullptr) throwKind("binary");
  return bytes->data();
}

void* OXValue::GetBinary() {
  Binary* bytes = std::get_if<Binary>(&fData);
  if (bytes == nullptr) throwKind("binary");
  return bytes->data();
}

bool OXValue::ToFloatArray(std::vector<float>& pResult, bool pClear) const {
  const Array* array = std::get_if<Array>(&fData);
  if (array == nullptr) return false;
  for (const OXValue& element : *array) {
    if (!element.isFloat() && !element.isInt()) return false;
  }
  if (pClear) pResult.clear();
  for (const OXValue& element : *array) pResult.push_back(static_cast<float>(element));
  return true;
}

bool OXValue::operator==(const OXValue& pOther) const {
  return fData == pOther.fData;
}

std::string OXValue::toString() const {
  std::ostringstream out;
  switch (getType()) {
    case TypeInvalid:
      out << "<invalid>";
      break;
    case TypeBool:
      out << (std::get<bool>(fData) ? "true" : "false");
      break;
    case TypeInt:
      out << std::get<int>(fData);
      break;
    case TypeFloat:
      out << std::get<float>(fData);
      break;
    case TypeString:
      out << '"' << std::get<std::string>(fData) << '"';
      break;
    case TypeArray: {
      out << '[';
      const Array& array = std::get<Array>(fData);
      for (size_t i = 0; i < array.size(); ++i) out << (i ? ", " : "") << array[i].toString();
      out << ']';
      break;
    }
    case TypeBinary:
      out << "<binary " << std::get<Binary>(fData).size() << " bytes>";
      break;
  }
  return out.str();
}

}  // namespace OX
