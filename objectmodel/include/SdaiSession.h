// The data-access session of the object model.
#pragma once

#include <memory>

namespace kiv {
class AdminStore;
}

// The session that KivIAdmin::Init opens on the administration store. It owns
// every object loaded from the store: objects handed out stay valid until the
// session is closed, whatever their reference counts.
class SdaiSession {
 public:
  // Returns the current session, or null when none is open.
  static SdaiSession* CurrentSession();
  // Makes a session owning store the current one; returns it. Used by Init.
  static SdaiSession* Open(std::unique_ptr<kiv::AdminStore> store);

  // Closes this session, which must be the current one, and frees every
  // object of its store. The session itself is destroyed.
  void CloseSession();

  kiv::AdminStore& Store() { return *store_; }

  ~SdaiSession();

 private:
  explicit SdaiSession(std::unique_ptr<kiv::AdminStore> store);
  std::unique_ptr<kiv::AdminStore> store_;
};
