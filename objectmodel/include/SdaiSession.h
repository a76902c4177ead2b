// The data-access session of the object model.
#pragma once

// The session that KivIAdmin::Init opens on the administration store. It owns
// every object read from the store: objects handed out stay valid until the
// session is closed, whatever their reference counts.
class SdaiSession {
 public:
  // Returns the current session, or null when none is open.
  static SdaiSession* CurrentSession();

  // Closes this session, the current one, and frees every object read from
  // its store; the session itself is destroyed.
  void CloseSession();

 protected:
  SdaiSession() = default;
  ~SdaiSession() = default;
};
