// The component-object basics of the administration object model: status
// codes, interface identifiers and IUnknown.
#pragma once

#include <cstdint>
#include <cstring>

// A signed 32-bit status: negative values are failures.
using HRESULT = std::int32_t;
using ULONG = std::uint32_t;

constexpr HRESULT S_OK = 0;
constexpr HRESULT S_FALSE = 1;
constexpr HRESULT E_NOINTERFACE = static_cast<HRESULT>(0x80004002u);
constexpr HRESULT E_POINTER = static_cast<HRESULT>(0x80004003u);
constexpr HRESULT E_FAIL = static_cast<HRESULT>(0x80004005u);

// A 128-bit interface identifier.
struct IID {
  std::uint32_t Data1;
  std::uint16_t Data2;
  std::uint16_t Data3;
  std::uint8_t Data4[8];
};

inline bool operator==(const IID& a, const IID& b) {
  return std::memcmp(&a, &b, sizeof(IID)) == 0;
}

// The root of every interface. Objects are destroyed by their owner, never
// through an interface pointer, so the destructor is not public.
struct IUnknown {
  static constexpr IID kIid = {
      0x00000000, 0x0000, 0x0000, {0xC0, 0, 0, 0, 0, 0, 0, 0x46}};

  // Sets *ppv to this object seen as the interface riid and adds a reference,
  // or sets it to null and returns E_NOINTERFACE.
  virtual HRESULT QueryInterface(const IID& riid, void** ppv) = 0;
  // Adds a reference; returns the new count.
  virtual ULONG AddRef() = 0;
  // Gives one reference back; returns the remaining count.
  virtual ULONG Release() = 0;

 protected:
  ~IUnknown() = default;
};
