// Faults injected into a whole export of a test store, as SQLite tests
// itself: the Nth memory allocation of SQLite fails, or the Nth read of the
// store file. For every N up to the first run that meets no fault, the run
// ends with status 1 and a message, or succeeds with the bytes of a clean
// run: never a crash, a hang, a leak (under the sanitizers), a wrong success
// or a silently shorter document.
//
// Plan:
//   Faults  every allocation and every read of an export failing in turn
//   Files   the store is only ever opened read-only
#include <sqlite3.h>

#include <cstdlib>
#include <cstring>
#include <fstream>
#include <vector>

#include "SdaiSession.h"
#include "Vantrel.h"
#include "test_support.h"

using test_support::CaptureStderr;
using test_support::DataPath;
using test_support::OutputPath;
using test_support::ReadFile;

namespace {

// The fault to inject: the Nth event of its kind fails; 0 for none.
struct Plan {
  long failAt = 0;
  long seen = 0;
  bool Fails() { return failAt > 0 && ++seen == failAt; }
};
Plan allocations, reads;
std::vector<int> mainDbOpenFlags;

// An allocator that fails when the plan says so.
sqlite3_mem_methods real;
void* FaultMalloc(int n) {
  return allocations.Fails() ? nullptr : real.xMalloc(n);
}
void* FaultRealloc(void* p, int n) {
  return allocations.Fails() ? nullptr : real.xRealloc(p, n);
}

// A VFS over the default one whose files fail their Nth read, and which
// logs the flags every main database is opened with.
struct FaultFile {
  sqlite3_file base;
  sqlite3_file* real;
};
sqlite3_vfs* realVfs;
sqlite3_vfs faultVfs;
sqlite3_io_methods faultIo;

sqlite3_file* Real(sqlite3_file* f) {
  return reinterpret_cast<FaultFile*>(f)->real;
}

int FaultOpen(sqlite3_vfs*, const char* name, sqlite3_file* file, int flags,
              int* outFlags) {
  auto* f = reinterpret_cast<FaultFile*>(file);
  f->real = reinterpret_cast<sqlite3_file*>(f + 1);
  if (flags & SQLITE_OPEN_MAIN_DB) mainDbOpenFlags.push_back(flags);
  const int rc = realVfs->xOpen(realVfs, name, f->real, flags, outFlags);
  f->base.pMethods = f->real->pMethods ? &faultIo : nullptr;
  return rc;
}

void InstallFaultVfs() {
  realVfs = sqlite3_vfs_find(nullptr);
  faultVfs = *realVfs;
  faultVfs.zName = "fault";
  faultVfs.szOsFile = static_cast<int>(sizeof(FaultFile)) + realVfs->szOsFile;
  faultVfs.xOpen = FaultOpen;
  faultIo = {};
  faultIo.iVersion = 1;
  faultIo.xRead = [](sqlite3_file* f, void* p, int n, sqlite3_int64 at) {
    if (reads.Fails()) return SQLITE_IOERR_READ;
    return Real(f)->pMethods->xRead(Real(f), p, n, at);
  };
  // Every other method goes to the real file as it is.
#define FORWARD(Method, Params, Args) \
  faultIo.Method = [] Params { return Real(f)->pMethods->Method Args; }
  FORWARD(xClose, (sqlite3_file * f), (Real(f)));
  FORWARD(xWrite, (sqlite3_file * f, const void* p, int n, sqlite3_int64 at),
          (Real(f), p, n, at));
  FORWARD(xTruncate, (sqlite3_file * f, sqlite3_int64 n), (Real(f), n));
  FORWARD(xSync, (sqlite3_file * f, int flags), (Real(f), flags));
  FORWARD(xFileSize, (sqlite3_file * f, sqlite3_int64 * n), (Real(f), n));
  FORWARD(xLock, (sqlite3_file * f, int lock), (Real(f), lock));
  FORWARD(xUnlock, (sqlite3_file * f, int lock), (Real(f), lock));
  FORWARD(xCheckReservedLock, (sqlite3_file * f, int* out), (Real(f), out));
  FORWARD(xFileControl, (sqlite3_file * f, int op, void* arg),
          (Real(f), op, arg));
  FORWARD(xSectorSize, (sqlite3_file * f), (Real(f)));
  FORWARD(xDeviceCharacteristics, (sqlite3_file * f), (Real(f)));
#undef FORWARD
  sqlite3_vfs_register(&faultVfs, 1);
}

// Swaps SQLite's allocator for the failing one, and its default VFS for the
// shim, for the life of the test program.
class FaultEnvironment : public ::testing::Environment {
 public:
  void SetUp() override {
    sqlite3_shutdown();
    sqlite3_config(SQLITE_CONFIG_GETMALLOC, &real);
    sqlite3_mem_methods failing = real;
    failing.xMalloc = FaultMalloc;
    failing.xRealloc = FaultRealloc;
    ASSERT_EQ(sqlite3_config(SQLITE_CONFIG_MALLOC, &failing), SQLITE_OK);
    ASSERT_EQ(sqlite3_initialize(), SQLITE_OK);
    InstallFaultVfs();
  }
};
const auto* const environment =
    ::testing::AddGlobalTestEnvironment(new FaultEnvironment);

struct Result {
  int rc;
  std::string doc, err;
};

// One whole export of store, as the tool runs it, in process.
Result Export(const std::string& store) {
  ::setenv("KIV_ADMIN_STORE", store.c_str(), 1);
  const std::string file = OutputPath("fault.xml");
  Result result;
  indent = 0;  // a failure leaves the depth behind, as the format wants
  {
    CaptureStderr err;
    std::ofstream out(file);
    result.rc = ReadAdmin(&out);
    result.err = err.Text();
  }
  // A failed run leaves its session open, as the tool's process would.
  if (SdaiSession* session = SdaiSession::CurrentSession())
    session->CloseSession();
  result.doc = ReadFile(file);
  return result;
}

// Fails the 1st, 2nd, ... event of plan in turn until an export meets no
// fault; returns the number of points injected.
long Sweep(Plan& plan, const std::string& store, const Result& clean) {
  long n = 1;
  for (;; ++n) {
    plan = Plan{n, 0};
    const Result run = Export(store);
    const bool hit = plan.seen >= n;
    plan = Plan{};
    if (run.rc == 0) {
      EXPECT_TRUE(run.doc == clean.doc) << "fault " << n << ": " << run.doc;
    } else {
      EXPECT_EQ(run.rc, 1) << "fault " << n;
      EXPECT_NE(run.err, "") << "fault " << n;
      EXPECT_TRUE(hit) << "fault " << n << ": a failure without a fault";
    }
    if (!hit) return n - 1;
  }
}

TEST(Faults, EveryAllocationAndEveryReadOfAnExport) {
  const std::string store = OutputPath("fault.db");
  test_support::MakeStore(store, {ReadFile(DataPath("full.sql"))});
  const Result clean = Export(store);
  ASSERT_EQ(clean.rc, 0) << clean.err;
  ASSERT_EQ(clean.doc, ReadFile(DataPath("full.xml")));

  const long allocationPoints = Sweep(allocations, store, clean);
  const long readPoints = Sweep(reads, store, clean);
  EXPECT_GT(allocationPoints, 100);
  EXPECT_GT(readPoints, 10);
  std::cout << "injection points: " << allocationPoints << " allocations, "
            << readPoints << " reads\n";
  RecordProperty("allocationPoints", static_cast<int>(allocationPoints));
  RecordProperty("readPoints", static_cast<int>(readPoints));
}

TEST(Files, TheStoreIsOnlyEverOpenedReadOnly) {
  const std::string store = OutputPath("read-only.db");
  test_support::MakeStore(store, {ReadFile(DataPath("full.sql"))});
  mainDbOpenFlags.clear();
  ASSERT_EQ(Export(store).rc, 0);
  ASSERT_FALSE(mainDbOpenFlags.empty());
  for (int flags : mainDbOpenFlags) {
    EXPECT_TRUE(flags & SQLITE_OPEN_READONLY);
    EXPECT_FALSE(flags & (SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE));
  }
}

}  // namespace
