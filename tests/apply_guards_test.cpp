// Tests of the apply's guard table, as units.
//
// Plan:
//   Guards  each guard on the facts at its boundary: exactly N removals
//           pass --max-removals N and N+1 do not, changes are not
//           removals, -1 takes any number; local sites that differ refuse
//           unless --other-installation, and so does a document without a
//           local site, while a store without one takes any; a moved base
//           refuses with what changed; a part lacking objects names them; a
//           kept media names the kind that takes its identifier; the first
//           guard asked wins; only the base and the part stop a dry run before
//           its plan; a revert's conflicts refuse it, each named
//   Table   every guard has a name of its own and a refusal's status
#include <gtest/gtest.h>

#include <set>
#include <string>

#include "ApplyGuards.h"

namespace {

using doc::ApplyOptions;
using doc::GuardFacts;

TEST(Guards, EachAtItsBoundary) {
  const auto plan = [](std::size_t removed, std::size_t changed) {
    auto p = std::make_shared<doc::Plan>();
    p->removed = removed;
    p->changed = changed;
    return p;
  };
  const struct {
    const char* name;
    std::shared_ptr<doc::Plan> plan;
    long maxRemovals;
    bool other;
    std::string documentSite, storeSite;
    bool baseMoved;
    std::vector<std::string> missing;
    std::string keptMedia;
    const char* guard;  // the guard that refuses, or null
    std::string why;
  } cases[] = {
      {"exactly N removals",
       plan(3, 0),
       3,
       false,
       "",
       "",
       false,
       {},
       "",
       nullptr,
       ""},
      {"N+1 removals",
       plan(4, 0),
       3,
       false,
       "",
       "",
       false,
       {},
       "",
       "max-removals",
       "the plan removes 4 objects, more than --max-removals 3"},
      {"changes are not removals",
       plan(0, 9),
       0,
       false,
       "",
       "",
       false,
       {},
       "",
       nullptr,
       ""},
      {"no limit",
       plan(1000, 0),
       -1,
       false,
       "",
       "",
       false,
       {},
       "",
       nullptr,
       ""},
      {"sites differ",
       plan(0, 0),
       -1,
       false,
       "x0901",
       "x1201",
       false,
       {},
       "",
       "other-installation",
       "D is another installation's: its local site is x0901, the store's is "
       "x1201 (--other-installation applies it all the same)"},
      {"sites differ, taken",
       plan(0, 0),
       -1,
       true,
       "x0901",
       "x1201",
       false,
       {},
       "",
       nullptr,
       ""},
      {"the same site",
       plan(0, 0),
       -1,
       false,
       "x1201",
       "x1201",
       false,
       {},
       "",
       nullptr,
       ""},
      {"a document without a local site",
       plan(0, 0),
       -1,
       false,
       "",
       "x1201",
       false,
       {},
       "",
       "other-installation",
       "D is another installation's: it has no local site, the store's is "
       "x1201 (--other-installation applies it all the same)"},
      {"a store without a local site",
       plan(0, 0),
       -1,
       false,
       "x0901",
       "",
       false,
       {},
       "",
       nullptr,
       ""},
      {"a moved base",
       plan(0, 0),
       -1,
       false,
       "",
       "",
       true,
       {},
       "",
       "base",
       "S no longer exports B: it was changed since"},
      {"a part lacking objects",
       nullptr,
       -1,
       false,
       "",
       "",
       false,
       {"x01", "x02"},
       "",
       "part",
       "the part names objects that S lacks: x01, x02 (add them to --only, or "
       "bring them along with --with-references)"},
      {"a kept media",
       plan(0, 0),
       -1,
       false,
       "",
       "",
       false,
       {},
       "x0A09",
       "kept-media",
       "the store's media x0A09 is kept by apply, and D gives its identifier "
       "to a HOST: remove the media row or change the document"},
      {"the base before the removals",
       plan(5, 0),
       0,
       false,
       "",
       "",
       true,
       {},
       "",
       "base",
       "S no longer exports B: it was changed since"},
      {"the sites before the removals",
       plan(5, 0),
       0,
       false,
       "a",
       "b",
       false,
       {},
       "",
       "other-installation",
       "D is another installation's: its local site is a, the store's is b "
       "(--other-installation applies it all the same)"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    GuardFacts facts;
    facts.plan = c.plan.get();
    facts.document = "D";
    facts.store = "S";
    facts.base = "B";
    facts.documentSite = c.documentSite;
    facts.storeSite = c.storeSite;
    facts.baseMoved = c.baseMoved;
    facts.baseChanges = "what changed\n";
    facts.missing = c.missing;
    facts.keptMedia = c.keptMedia;
    facts.keptMediaTakenBy = "HOST";
    ApplyOptions options;
    options.maxRemovals = c.maxRemovals;
    options.otherInstallation = c.other;
    const doc::Refusal r = doc::Guarded(facts, options);
    EXPECT_EQ(r.guard ? std::string(r.guard) : "",
              c.guard ? std::string(c.guard) : "");
    EXPECT_EQ(r.why, c.why);
    if (!r) continue;
    EXPECT_EQ(r.status, doc::kRefusedByGuard);
    // Only the base and the part stop a dry run before its plan.
    const std::string g = r.guard;
    EXPECT_EQ(r.planShown, g != "base" && g != "part");
    EXPECT_EQ(r.detail, g == "base" ? "what changed\n" : "");
  }
}

// The same identifier given to another object: refused unless taken, and
// only a part asks it. A revert's conflicts. The guards in force, as the log
// records them.
TEST(Guards, TheSameIdentifierConflictsAndWhatIsInForce) {
  GuardFacts facts;
  facts.otherObjects = {
      "PROJECT x01 \"A\" in the store, PROJECT x01 \"B\" in D"};
  ApplyOptions options;
  options.only = {"x01"};
  doc::Refusal r = doc::Guarded(facts, options);
  EXPECT_EQ(std::string(r.guard ? r.guard : ""), "same-identifier");
  EXPECT_EQ(r.why,
            "the same identifier, another object: PROJECT x01 \"A\" in the "
            "store, PROJECT x01 \"B\" in D (--same-identifier-ok applies it "
            "all the same)");
  EXPECT_TRUE(r.planShown);
  options.sameIdentifierOk = true;
  EXPECT_FALSE(doc::Guarded(facts, options));
  // A revert's conflicts refuse it, each named, before its plan.
  GuardFacts conflicted;
  conflicted.conflicts = {"HOST x0A02 \"b\": Name changed by C and again since",
                          "DOMAIN x0E03 \"D\": removed by C and added again "
                          "since"};
  r = doc::Guarded(conflicted, ApplyOptions());
  EXPECT_EQ(std::string(r.guard ? r.guard : ""), "conflict");
  EXPECT_EQ(r.why,
            "a later change touched what the commit changed: HOST x0A02 "
            "\"b\": Name changed by C and again since; DOMAIN x0E03 \"D\": "
            "removed by C and added again since");
  EXPECT_FALSE(r.planShown);
  const struct {
    const char* name;
    ApplyOptions options;
    std::vector<std::string> inForce;
  } cases[] = {
      {"none given", {}, {"other-installation", "kept-media"}},
      {"every one",
       [] {
         ApplyOptions o;
         o.base = "B";
         o.only = {"x01"};
         o.maxRemovals = 0;
         o.revert = "c0";
         return o;
       }(),
       {"base", "part", "conflict", "same-identifier", "other-installation",
        "max-removals", "kept-media"}},
      {"switched off",
       [] {
         ApplyOptions o;
         o.only = {"x01"};
         o.sameIdentifierOk = true;
         o.otherInstallation = true;
         return o;
       }(),
       {"part", "kept-media"}},
  };
  for (const auto& c : cases)
    EXPECT_EQ(doc::GuardsInForce(c.options), c.inForce) << c.name;
}

TEST(Table, EveryGuardHasANameOfItsOwn) {
  std::set<std::string> names;
  for (const doc::Guard& g : doc::Guards()) {
    EXPECT_TRUE(names.insert(g.name).second) << g.name;
    EXPECT_NE(g.status, 0) << g.name;
    // With nothing found, no guard refuses.
    EXPECT_EQ(g.check(GuardFacts(), ApplyOptions()), "") << g.name;
  }
}

}  // namespace
