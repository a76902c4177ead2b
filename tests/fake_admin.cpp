#include "fake_admin.h"

#include <sstream>

namespace fake {
namespace {

World* current = nullptr;

// The fake session that Init opens.
class Session : public SdaiSession {};
Session session;

}  // namespace

void Object::Log(const char* operation) const {
  if (world) world->calls.push_back(label + "." + operation);
}

HRESULT Text(LumUnicodeString& out, const std::string& text) {
  out = text.c_str();
  return S_OK;
}

HRESULT Admin::Init(LumUnicodeString&, LumUnicodeString&, int) {
  Log("Init");
  if (initStatus >= 0) world->sessionOpen = true;
  return initStatus;
}
World::World() : previous_(current) {
  admin.label = "Admin";
  admin.world = this;
  current = this;
}

World::~World() { current = previous_; }

std::string World::Held() const {
  std::string held;
  auto note = [&held](const Object& o) {
    if (o.refs == 0) return;
    if (!held.empty()) held += " ";
    held += o.label + ":" + std::to_string(o.refs);
  };
  note(admin);
  for (const auto& object : objects_) note(*object);
  return held;
}

std::string World::Calls() {
  std::string joined;
  for (const std::string& call : calls)
    joined += (joined.empty() ? "" : " ") + call;
  calls.clear();
  return joined;
}

std::string World::Bytes(const std::string& hex) {
  std::string bytes;
  for (std::size_t i = 0; i + 1 < hex.size(); i += 2)
    bytes += static_cast<char>(std::stoi(hex.substr(i, 2), nullptr, 16));
  return bytes;
}

}  // namespace fake

HRESULT GetKivIAdmin(KivIAdmin*& admin) {
  fake::World* world = fake::current;
  if (!world || world->noRoot) return E_FAIL;
  return fake::Give(admin, &world->admin);
}

SdaiSession* SdaiSession::CurrentSession() {
  fake::World* world = fake::current;
  return world && world->sessionOpen ? &fake::session : nullptr;
}

void SdaiSession::CloseSession() {
  if (fake::World* world = fake::current) {
    world->sessionOpen = false;
    ++world->sessionsClosed;
  }
}

int KivAdminStoreIs(const char*) { return 0; }  // the double has no file
