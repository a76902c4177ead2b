#include <memory>
#include <ostream>

#include "Checker.h"
#include "DocumentRows.h"
#include "Output.h"
#include "VantrelDoc.h"

namespace vdoc {

namespace {

// Adds the rows of every element to a new store as the document is walked.
class Loader : public doc::Visitor {
 public:
  explicit Loader(const std::string& store) : store_(store) {}
  bool Start(std::string* error) {
    writer_.reset();  // removes the partial file of a reading given up
    const vantrel::HeldSignals held;
    writer_ = KivStoreWriter::Create(store_, error);
    if (writer_) SetPartialFile(writer_->PartialPath().c_str());
    return writer_ != nullptr;
  }
  void Element(const doc::Line& line, std::size_t,
               const doc::Place& place) override {
    ok_ = ok_ && doc::AddRows(*writer_, line, place.parent, &error_);
  }
  void Problem(std::size_t, const std::string&) override {}
  void Restart() override { ok_ = Start(&error_); }
  // Commits the rows; false with *error set.
  bool Commit(std::string* error) {
    if (!ok_ || !writer_->Commit(error)) {
      if (!ok_) *error = error_;
      return false;
    }
    return true;
  }
  ~Loader() override { SetPartialFile(nullptr); }

 private:
  std::string store_;
  std::unique_ptr<KivStoreWriter> writer_;
  bool ok_ = true;
  std::string error_;
};

}  // namespace

int DocLoad(const std::string& file, const std::string& store,
            std::ostream& out, std::ostream& err) {
  std::string error;
  Loader loader(store);
  if (!loader.Start(&error)) {
    err << "vantrel-doc: cannot create the store " << doc::Shown(store) << ": "
        << error << "\n";
    return 2;
  }
  // Rows are added as the document is checked, in one pass; a document
  // with a problem leaves no store behind.
  doc::Checker checker(file, err, &loader);
  if (!checker.Run()) return 2;
  if (checker.Problems()) {
    err << "vantrel-doc: " << doc::Shown(file)
        << " is refused by check: nothing was loaded\n";
    return 1;
  }
  if (!loader.Commit(&error)) {
    err << "vantrel-doc: cannot load " << doc::Shown(file) << " into "
        << doc::Shown(store) << ": " << error << "\n";
    return 2;
  }
  out << doc::Shown(store) << ": loaded from " << doc::Shown(file) << "\n";
  return 0;
}

}  // namespace vdoc
