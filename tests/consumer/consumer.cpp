// Prints the names of the projects of the administration, one per line.
#include <cstdio>

#include "KivAdmin.h"
#include "SdaiSession.h"

int main() {
  KivIAdmin* admin = nullptr;
  GetKivIAdmin(admin);
  LumUnicodeString user(""), password("");
  if (admin->Init(user, password, 0) < 0) return 1;
  LumListPtrIUnknown projects(0);
  admin->GetProjects(projects);
  for (int i = 1; i <= projects.Count(); ++i) {
    auto* project = static_cast<KivIProject*>(projects[i]);
    std::printf("%s\n", project->GetName().ConvertToChar());
    project->Release();
  }
  const int rc = admin->End() < 0;
  admin->Release();
  SdaiSession::CurrentSession()->CloseSession();
  return rc;
}
