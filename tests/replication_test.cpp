// Tests of subscribing targets, subscriptions and their statuses, in process
// on the test double. The two twins run through the same typed tests.
//
// Plan:
//   Replication  statuses sorted by the kind of their server, a failing or
//                null server, a server of neither kind, the release passes
//   Status       a null server is fatal
#include "tool_test.h"

namespace {

struct TargetTwin {
  using Set = fake::SubscribingTarget;
  using Status = fake::CaptureStatus;
  static int Dump(std::ofstream* out, Set* set) {
    return DumpSubscribingTarget(out, set);
  }
  static constexpr const char* kElement = "SUBSCRIBINGTARGET";
  static constexpr const char* kStatus = "CAPTURESTATUS";
  static constexpr const char* kServerAttribute = "CapturedObject";
  static constexpr const char* kCount = "number of capture status found [";
  static constexpr const char* kServerFailure = "cannot get capture server\n";
};

struct SubscriptionTwin {
  using Set = fake::Subscription;
  using Status = fake::ApplyStatus;
  static int Dump(std::ofstream* out, Set* set) {
    return DumpSubscription(out, set);
  }
  static constexpr const char* kElement = "SUBSCRIPTION";
  static constexpr const char* kStatus = "APPLYSTATUS";
  static constexpr const char* kServerAttribute = "AppliedObject";
  static constexpr const char* kCount = "number of Apply status found [";
  static constexpr const char* kServerFailure = "cannot get Apply server\n";
};

template <class Twin>
class Replication : public ToolTest {
 protected:
  using Set = typename Twin::Set;
  using Status = typename Twin::Status;

  void SetUp() override {
    ToolTest::SetUp();
    set = fakes.Add<Set>("X", "15");
    set->name = "N";
  }
  // Exports the set entered at depth 1.
  Outcome Dump() { return this->Write(Twin::Dump, set, 1); }
  // A status of the set at server.
  Status* AddStatus(const std::string& label, KivIObject* server) {
    auto* status = fakes.Add<Status>(label, label.substr(1));
    status->lastSuccessfulDate = "d" + label;
    status->server = server;
    set->statuses.push_back(status);
    return status;
  }
  // The line of status label at a server of kind ("DATASERVER" or
  // "VAULTSERVER") whose identifier is serverOid.
  static std::string Line(const std::string& kind, const std::string& label,
                          const std::string& serverOid) {
    return "    <" + kind + Twin::kStatus + " Oid=\"x" + label.substr(1) +
           "\" LastSuccessfulDate=\"d" + label + "\" " +
           Twin::kServerAttribute + "=\"x" + serverOid + "\" />\n";
  }
  // The start tag, where references are the pieces after the name.
  std::string StartTag(const std::string& references = "") const {
    return std::string("  <") + Twin::kElement + " Oid=\"x15\" Name=\"N" +
           references + "\" >\n";
  }
  std::string EndTag() const {
    return std::string("</") + Twin::kElement + ">\n";
  }

  Set* set = nullptr;
};

using Twins = ::testing::Types<TargetTwin, SubscriptionTwin>;
TYPED_TEST_SUITE(Replication, Twins);

TYPED_TEST(Replication, VaultServerStatusesFirstThenDataEachInListOrder) {
  auto* d1 = this->fakes.template Add<fake::DataServer>("D1", "B1");
  auto* d2 = this->fakes.template Add<fake::DataServer>("D2", "B2");
  auto* v1 = this->fakes.template Add<fake::VaultServer>("V1", "C1");
  // A server that answers to both names is a vault server.
  auto* both = this->fakes.template Add<fake::VaultServer>("V2", "C2");
  both->answersTo.push_back("KivIDataServer");
  this->AddStatus("S01", d1);
  this->AddStatus("S02", v1);
  this->AddStatus("S03", d2);
  this->AddStatus("S04", both);
  // Its references, each given back once written.
  this->set->media = this->fakes.template Add<fake::Media>("M", "13");
  this->set->packageDefinition =
      this->fakes.template Add<fake::PackageDefinition>("K", "14");
  this->set->externSite = this->fakes.template Add<fake::ExternSite>("E", "11");
  EXPECT_EQ(
      this->Dump(),
      (Outcome{0, "",
               this->StartTag("\" Media=\"x13\" PackageDefinition=\"x14\" "
                              "ExternSite=\"x11") +
                   this->Line("VAULTSERVER", "S02", "C1") +
                   this->Line("VAULTSERVER", "S04", "C2") +
                   this->Line("DATASERVER", "S01", "B1") +
                   this->Line("DATASERVER", "S03", "B2") + this->EndTag(),
               1}));
  EXPECT_NE(this->trace.find(std::string(TypeParam::kCount) + "4]\n"),
            std::string::npos);
  // The sorted lists hold no references: each status is given back once.
  for (auto* status : this->set->statuses) EXPECT_EQ(status->releases, 1);
  EXPECT_EQ(this->fakes.Held(), "");
}

TYPED_TEST(Replication, NullServerDroppedSilentlyOtherFailuresIgnored) {
  auto* d1 = this->fakes.template Add<fake::DataServer>("D1", "B1");
  this->AddStatus("S01", nullptr);
  this->AddStatus("S02", d1)->serverStatus = -2;  // only E_FAIL counts
  EXPECT_EQ(this->Dump(),
            (Outcome{0, "",
                     this->StartTag() + this->Line("DATASERVER", "S02", "B1") +
                         this->EndTag(),
                     1}));
  EXPECT_NE(this->trace.find(std::string(TypeParam::kCount) + "2]\n"),
            std::string::npos);
}

TYPED_TEST(Replication, ServerGetterFailingWithEFailEndsTheElement) {
  auto* d1 = this->fakes.template Add<fake::DataServer>("D1", "B1");
  this->AddStatus("S01", d1);
  this->AddStatus("S02", d1)->serverStatus = E_FAIL;
  EXPECT_EQ(this->Dump(),
            (Outcome{1, TypeParam::kServerFailure, this->StartTag(), 2}));
  EXPECT_EQ(this->trace.find("returns"), std::string::npos);
  EXPECT_EQ(this->fakes.Held(), "D1:1 S01:1 S02:1");
}

TYPED_TEST(Replication, ServerOfNeitherKindIsFatalAndSkippedWhenItReturns) {
  auto* host = this->fakes.template Add<fake::Host>("H", "A1");
  auto* v1 = this->fakes.template Add<fake::VaultServer>("V1", "C1");
  this->AddStatus("S01", host);
  this->AddStatus("S02", v1);
  LumFatalErrorHandler previous =
      LumSetFatalErrorHandler([](const char*, const char*, int) {});
  const Outcome written = this->Dump();
  LumSetFatalErrorHandler(previous);
  EXPECT_EQ(written,
            (Outcome{0,
                     "-- Server not of right type -- file "
                     ":[Vantrel.m/src/Vantrel.cpp] at line [N] \n"
                     "fatal error: AssertionFailed:0 file "
                     "[Vantrel.m/src/Vantrel.cpp] line [N]\n",
                     this->StartTag() + this->Line("VAULTSERVER", "S02", "C1") +
                         this->EndTag(),
                     1}));
  EXPECT_EQ(this->fakes.Held(), "H:1");
}

TEST(StatusDeathTest, NullServerIsFatal) {
  fake::World fakes;
  auto* status = fakes.Add<fake::CaptureStatus>("C", "01");
  std::ofstream out(test_support::OutputPath("null-server.xml"));
  EXPECT_EXIT(DumpDataServerCaptureStatus(&out, status),
              ::testing::ExitedWithCode(3),
              "fatal error: AssertionFailed:pServer");
}

}  // namespace
