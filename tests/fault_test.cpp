// Faults injected into a whole export of a test store, as SQLite tests
// itself: the Nth memory allocation of SQLite fails, the Nth allocation of
// the program's own (operator new), or the Nth read of the store file. For
// every N up to the first run that meets no fault, the run ends with status
// 1, a message and the END line, or succeeds with the bytes of a clean run:
// never a crash, a hang, a leak (under the sanitizers), a wrong success or a
// silently shorter document.
//
// Plan:
//   Faults  every allocation (SQLite's and the program's) and every read of
//           an export failing in turn
//   Load    SQLite's allocations and writes failing during vantrel-doc load:
//           a whole store that exports the document, or none and no partial
//           file; the store and its directory written to the disk
//   Apply   the same faults during vantrel-doc apply (every few allocations,
//           every read and write): each run leaves the store exporting the
//           document before or the one after, and says why it failed
//   Files   the store is only ever opened read-only
#include <sqlite3.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <new>
#include <vector>

#include "SdaiSession.h"
#include "Vantrel.h"
#include "VantrelDoc.h"
#include "test_support.h"

using test_support::DataPath;
using test_support::OutputPath;
using test_support::ReadFile;

namespace {

// The fault to inject: the Nth event of its kind fails; 0 for none.
// Counted atomically: apply reads its document on a thread of its own.
struct Plan {
  long failAt = 0;
  std::atomic<long> seen{0};
  bool Fails() { return failAt > 0 && ++seen == failAt; }
  // Arms the plan: the Nth event fails (none for 0).
  void Arm(long n) {
    failAt = n;
    seen = 0;
  }
};
Plan allocations, reads, writes, cxxAllocations;
std::vector<int> mainDbOpenFlags;

// An allocator that fails when the plan says so.
sqlite3_mem_methods real;
void* FaultMalloc(int n) {
  return allocations.Fails() ? nullptr : real.xMalloc(n);
}
void* FaultRealloc(void* p, int n) {
  return allocations.Fails() ? nullptr : real.xRealloc(p, n);
}

}  // namespace

// The files the program synced, by the path of their descriptor.
std::vector<std::string> synced;
// Recorded only while no allocation is to fail: the record's own would.
extern "C" int fsync(int fd) {
  if (cxxAllocations.failAt == 0) {
    char link[64], path[4096];
    std::snprintf(link, sizeof link, "/proc/self/fd/%d", fd);
    const ssize_t n = ::readlink(link, path, sizeof path);
    synced.emplace_back(path, n > 0 ? static_cast<std::size_t>(n) : 0);
  }
  return static_cast<int>(::syscall(SYS_fsync, fd));
}

// The program's own allocations, failing when the plan says so. Only the
// throwing forms fail: a nothrow caller handles null itself. GCC, seeing
// malloc behind operator new once inlined, takes free for a mismatch.
#if defined(__GNUC__) && !defined(__clang__)
#pragma GCC diagnostic ignored "-Wmismatched-new-delete"
#endif
void* operator new(std::size_t n) {
  if (cxxAllocations.Fails()) throw std::bad_alloc();
  if (void* p = std::malloc(n ? n : 1)) return p;
  throw std::bad_alloc();
}
void* operator new[](std::size_t n) { return operator new(n); }
void* operator new(std::size_t n, const std::nothrow_t&) noexcept {
  return std::malloc(n ? n : 1);
}
void* operator new[](std::size_t n, const std::nothrow_t&) noexcept {
  return std::malloc(n ? n : 1);
}
void operator delete(void* p) noexcept { std::free(p); }
void operator delete[](void* p) noexcept { std::free(p); }
void operator delete(void* p, std::size_t) noexcept { std::free(p); }
void operator delete[](void* p, std::size_t) noexcept { std::free(p); }
void operator delete(void* p, const std::nothrow_t&) noexcept { std::free(p); }
void operator delete[](void* p, const std::nothrow_t&) noexcept {
  std::free(p);
}

namespace {

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
  faultIo.xWrite = [](sqlite3_file* f, const void* p, int n, sqlite3_int64 at) {
    if (writes.Fails()) return SQLITE_IOERR_WRITE;
    return Real(f)->pMethods->xWrite(Real(f), p, n, at);
  };
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
  bool hit;  // the fault was met
  std::string doc, err;
};

// One whole export of store, as the tool runs it, in process, with the
// fault of plan armed for the export alone.
Result Export(const std::string& store, Plan& plan, long failAt) {
  ::setenv("KIV_ADMIN_STORE", store.c_str(), 1);
  std::string file = OutputPath("fault.xml");
  const std::string errors = OutputPath("fault.err");
  Result result;
  indent = 0;  // a failure leaves the depth behind, as the format wants
  {
    // Standard error goes to a file whose buffer exists before the fault
    // is armed: writing a message allocates nothing.
    std::filebuf err;
    err.open(errors, std::ios::out | std::ios::trunc);
    std::streambuf* saved = std::cerr.rdbuf(&err);
    char program[] = "Vantrel", option[] = "-f";
    char* argv[] = {program, option, &file[0], nullptr};
    plan.Arm(failAt);
    result.rc = VantrelMain(3, argv);
    result.hit = failAt > 0 && plan.seen >= failAt;
    plan.Arm(0);
    std::cerr.rdbuf(saved);
  }
  // A failed run leaves its session open, as the tool's process would.
  if (SdaiSession* session = SdaiSession::CurrentSession())
    session->CloseSession();
  result.doc = ReadFile(file);
  result.err = ReadFile(errors);
  return result;
}

// Fails the 1st, 2nd, ... event of plan in turn until an export meets no
// fault; returns the number of points injected. *told counts the runs in
// which the store reported the memory that ran out, in its getter's chain.
long Sweep(Plan& plan, const std::string& store, const Result& clean,
           long* told = nullptr) {
  long n = 1;
  for (;; ++n) {
    const Result run = Export(store, plan, n);
    if (run.rc == 0) {
      EXPECT_TRUE(run.doc == clean.doc) << "fault " << n << ": " << run.doc;
    } else {
      EXPECT_EQ(run.rc, 1) << "fault " << n;
      // A message, then the END line; or the stream's own allocation
      // failure, which ends without one.
      const bool ended =
          run.err.size() > 33 &&
          run.err.compare(run.err.size() - 18, 18, "END Vantrel rc= 1\n") == 0;
      const bool stream =
          run.err.find("\ncannot allocate memory ") != std::string::npos &&
          run.err.find("END Vantrel") == std::string::npos;
      EXPECT_TRUE(ended || stream) << "fault " << n << ": " << run.err;
      EXPECT_TRUE(run.hit) << "fault " << n << ": a failure without a fault";
      if (told &&
          run.err.find("\": cannot allocate memory\n") != std::string::npos)
        ++*told;
    }
    if (!run.hit) return n - 1;
  }
}

TEST(Faults, EveryAllocationAndEveryReadOfAnExport) {
  const std::string store = OutputPath("fault.db");
  test_support::MakeStore(store, {ReadFile(DataPath("full.sql"))});
  const Result clean = Export(store, reads, 0);
  ASSERT_EQ(clean.rc, 0) << clean.err;
  ASSERT_EQ(clean.doc, ReadFile(DataPath("full.xml")));

  const long allocationPoints = Sweep(allocations, store, clean);
  long told = 0;
  const long cxxPoints = Sweep(cxxAllocations, store, clean, &told);
  // Nearly all of them are met inside the store, which tells them in its
  // getter's chain; the rest by the tool's own allocations.
  EXPECT_GT(told, cxxPoints * 9 / 10);
  const long readPoints = Sweep(reads, store, clean);
  EXPECT_GT(allocationPoints, 100);
  EXPECT_GT(cxxPoints, 100);
  EXPECT_GT(readPoints, 10);
  std::cout << "injection points: " << allocationPoints
            << " SQLite allocations, " << cxxPoints << " C++ allocations, "
            << readPoints << " reads\n";
  RecordProperty("allocationPoints", static_cast<int>(allocationPoints));
  RecordProperty("cxxAllocationPoints", static_cast<int>(cxxPoints));
  RecordProperty("readPoints", static_cast<int>(readPoints));
}

// Runs vantrel-doc with args in process, its output to files; the status
// and standard error.
std::pair<int, std::string> DocMain(std::vector<std::string> args) {
  int rc;
  {
    std::filebuf out, err;
    out.open(OutputPath("fault-doc.out"), std::ios::out | std::ios::trunc);
    err.open(OutputPath("fault-doc.err"), std::ios::out | std::ios::trunc);
    std::streambuf* savedOut = std::cout.rdbuf(&out);
    std::streambuf* savedErr = std::cerr.rdbuf(&err);
    std::vector<char*> argv;
    static char program[] = "vantrel-doc";
    argv.push_back(program);
    for (std::string& a : args) argv.push_back(&a[0]);
    argv.push_back(nullptr);
    rc = vdoc::VantrelDocMain(static_cast<int>(argv.size() - 1), argv.data());
    std::cout.rdbuf(savedOut);
    std::cerr.rdbuf(savedErr);
  }
  return {rc, ReadFile(OutputPath("fault-doc.err"))};
}

TEST(Load, EveryFaultLeavesAWholeStoreOrNone) {
  const std::string doc = DataPath("full.xml");
  const std::string store = OutputPath("fault-load.db");
  const struct {
    const char* name;
    Plan* plan;
    long stride;
  } sweeps[] = {{"writes", &writes, 1},
                {"SQLite allocations", &allocations, 3}};
  for (const auto& sweep : sweeps) {
    long points = 0;
    for (long n = 1;; n += sweep.stride) {
      std::remove(store.c_str());
      sweep.plan->Arm(n);
      const auto [rc, err] = DocMain({"load", doc, store});
      const bool hit = sweep.plan->seen >= n;
      sweep.plan->Arm(0);
      if (rc == 0) {
        EXPECT_TRUE(Export(store, reads, 0).doc == ReadFile(doc))
            << sweep.name << " " << n;
      } else {
        EXPECT_NE(err, "") << sweep.name << " " << n;
        EXPECT_FALSE(test_support::FileExists(store)) << sweep.name << " " << n;
      }
      for (const std::string& name :
           test_support::ListDirectory(OutputPath("")))
        EXPECT_EQ(name.find("fault-load.db.partial-"), std::string::npos)
            << sweep.name << " " << n;
      if (!hit) break;
      ++points;
    }
    std::cout << sweep.name << ": " << points << " points\n";
    EXPECT_GT(points, 5) << sweep.name;
  }
  // The file, then its name in its directory, reach the disk before the
  // command says it is done, whether the name has a directory or not.
  std::string directory = OutputPath("");
  directory.pop_back();
  char* saved = ::getcwd(nullptr, 0);
  ASSERT_EQ(::chdir(directory.c_str()), 0);
  for (const bool bare : {false, true}) {
    for (const char* command : {"load", "xml"}) {
      const std::string name = std::string("fault-synced.") + command;
      const std::string target = bare ? name : OutputPath(name);
      std::remove(target.c_str());
      synced.clear();
      EXPECT_EQ(DocMain({command, doc, target}).first, 0) << target;
      EXPECT_EQ(synced.size(), 2u) << target;
      EXPECT_NE(synced.front().find(name), std::string::npos) << target;
      EXPECT_EQ(synced.back(), directory) << target;
    }
  }
  EXPECT_EQ(::chdir(saved), 0);
  std::free(saved);
}

// One apply of wanted to a fresh copy of store, in process, with the fault
// of plan armed; the status, and what the copy exports.
struct Applied {
  int rc;
  bool hit;
  std::string err, exported;
};

Applied Apply(const std::string& store, const std::string& wanted, Plan& plan,
              long failAt) {
  const std::string copy = OutputPath("fault-apply.db");
  test_support::WriteFile(copy, ReadFile(store));
  std::remove((copy + "-journal").c_str());
  Applied applied;
  {
    std::filebuf out, err;
    out.open(OutputPath("fault-apply.out"), std::ios::out | std::ios::trunc);
    err.open(OutputPath("fault-apply.err"), std::ios::out | std::ios::trunc);
    std::streambuf* savedOut = std::cout.rdbuf(&out);
    std::streambuf* savedErr = std::cerr.rdbuf(&err);
    plan.Arm(failAt);
    // The command itself, past its command line: the parser's allocations
    // are not the apply's.
    applied.rc = vdoc::SayingOutOfMemory([&] {
      // With a log: its line is made before the commit, and its writing
      // after it allocates nothing.
      vdoc::ApplyOptions options;
      options.log = OutputPath("fault-apply.log");
      return vdoc::DocApply(wanted, copy, options, std::cout, std::cerr);
    });
    applied.hit = failAt > 0 && plan.seen >= failAt;
    plan.Arm(0);
    std::cout.rdbuf(savedOut);
    std::cerr.rdbuf(savedErr);
  }
  if (SdaiSession* session = SdaiSession::CurrentSession())
    session->CloseSession();
  applied.err = ReadFile(OutputPath("fault-apply.err"));
  applied.exported = Export(copy, reads, 0).doc;
  return applied;
}

TEST(Apply, EveryFaultLeavesTheStoreBeforeOrAfter) {
  const std::string store = OutputPath("fault-apply-have.db");
  test_support::MakeStore(store, {ReadFile(DataPath("full.sql"))});
  const std::string wantedStore = OutputPath("fault-apply-want.db");
  test_support::MakeStore(wantedStore,
                          {ReadFile(DataPath("full.sql")),
                           "UPDATE host SET name = 'gamma' WHERE oid = x'0A02';"
                           "DELETE FROM extern_site WHERE oid = x'1102';"
                           "UPDATE subscription SET extern_site = NULL;"
                           "INSERT INTO project VALUES (x'0D09', 'NEW');"});
  const std::string before = Export(store, reads, 0).doc;
  const std::string wanted = OutputPath("fault-apply-wanted.xml");
  test_support::WriteFile(wanted, Export(wantedStore, reads, 0).doc);
  const std::string after = ReadFile(wanted);
  ASSERT_NE(before, after);
  // Every fault point of reads and writes, every few of the allocations:
  // an apply makes tens of thousands, and their paths repeat.
  const struct {
    const char* name;
    Plan* plan;
    long stride;
  } sweeps[] = {{"reads", &reads, 1},
                {"writes", &writes, 1},
                {"SQLite allocations", &allocations, 7},
                {"C++ allocations", &cxxAllocations, 3}};
  for (const auto& sweep : sweeps) {
    long points = 0;
    for (long n = 1;; n += sweep.stride) {
      const Applied run = Apply(store, wanted, *sweep.plan, n);
      EXPECT_TRUE(run.exported == before || run.exported == after)
          << sweep.name << " " << n << ": " << run.err;
      if (run.rc == 0) {
        EXPECT_TRUE(run.exported == after) << sweep.name << " " << n;
      } else {
        EXPECT_NE(run.err, "") << sweep.name << " " << n;
        EXPECT_TRUE(run.exported == before) << sweep.name << " " << n;
      }
      if (!run.hit) break;
      ++points;
    }
    std::cout << sweep.name << ": " << points << " points\n";
    EXPECT_GT(points, 5) << sweep.name;
  }
}

TEST(Files, TheStoreIsOnlyEverOpenedReadOnly) {
  const std::string store = OutputPath("read-only.db");
  test_support::MakeStore(store, {ReadFile(DataPath("full.sql"))});
  mainDbOpenFlags.clear();
  ASSERT_EQ(Export(store, reads, 0).rc, 0);
  ASSERT_FALSE(mainDbOpenFlags.empty());
  for (int flags : mainDbOpenFlags) {
    EXPECT_TRUE(flags & SQLITE_OPEN_READONLY);
    EXPECT_FALSE(flags & (SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE));
  }
}

}  // namespace
