#include <rapidjson/writer.h>

#include <ostream>

#include "Checker.h"
#include "Copy.h"
#include "Escape.h"
#include "Output.h"
#include "VantrelDoc.h"

namespace vdoc {

namespace {

// RapidJSON's output stream: characters gathered in a buffer and written to
// the stream a block at a time.
class BufferedStream {
 public:
  using Ch = char;
  explicit BufferedStream(std::ostream& out) : out_(out) {}
  ~BufferedStream() { Flush(); }
  void Put(char c) {
    buffer_ += c;
    if (buffer_.size() >= kBlock) Flush();
  }
  void Flush() {
    out_.write(buffer_.data(), static_cast<std::streamsize>(buffer_.size()));
    buffer_.clear();
  }
  void Clear() { buffer_.clear(); }

 private:
  static constexpr std::size_t kBlock = 1 << 16;
  std::ostream& out_;
  std::string buffer_;
};

// Writes the configuration as one JSON object as the document is walked,
// through RapidJSON's streaming writer: nothing is held but the element at
// hand. Strings must be UTF-8; a value that is not is a problem of its line.
class JsonWriter : public ReportingWriter {
 public:
  JsonWriter(Output& output, const std::string& file)
      : output_(output), file_(file), stream_(output.Stream()) {
    Begin();
  }
  void Element(const doc::Line& line, std::size_t n,
               const doc::Place& place) override {
    const doc::Layout& layout = doc::LayoutOf(line.kind);
    const int oid = doc::AttributeIndex(line.kind, "Oid");
    if (oid < 0) return;  // the server wrapper: not an object
    writer_.StartObject();
    writer_.Key("kind");
    writer_.String(layout.name);
    writer_.Key("id");
    Text(line.values[oid], n, "Oid");
    writer_.Key("parent");
    if (place.parent.empty())
      writer_.Null();
    else
      Text(place.parent, n, "parent");
    writer_.Key("attributes");
    writer_.StartObject();
    for (std::size_t i = 0; i < layout.attributes.size(); ++i) {
      if (!line.Has(static_cast<int>(i)) || static_cast<int>(i) == oid)
        continue;
      const doc::Attribute& a = layout.attributes[i];
      const char* name = a.name;
      writer_.Key(name);
      if (a.field != doc::Field::kRefs) {
        Text(line.values[i], n, name);
        continue;
      }
      writer_.StartArray();
      for (std::string_view id : doc::Identifiers(line.values[i]))
        Text(id, n, name);
      writer_.EndArray();
    }
    writer_.EndObject();
    writer_.EndObject();
  }
  void Other(const doc::Line& line, std::size_t n) override {
    if (line.type == doc::Line::kStylesheet) {
      writer_.Key("stylesheet");
      Text(line.values[0], n, "the stylesheet's path");
    } else if (line.type == doc::Line::kRootStart) {
      writer_.Key("objects");
      writer_.StartArray();
    } else if (line.type == doc::Line::kRootEnd) {
      writer_.EndArray();
      writer_.EndObject();
      stream_.Put('\n');
      stream_.Flush();
    }
  }
  void Restart() override {
    std::string error;
    stream_.Clear();
    if (!output_.Rewind(&error)) return checker_->Problem(0, error);
    Begin();
  }

 private:
  void Begin() {
    writer_.Reset(stream_);
    writer_.StartObject();
    writer_.Key("format");
    writer_.String("vantrel-doc json 1");
    writer_.Key("document");
    writer_.String(file_.c_str(),
                   static_cast<rapidjson::SizeType>(file_.size()));
  }
  // A string value; a problem of line n when it is not UTF-8.
  void Text(std::string_view text, std::size_t n, const char* what) {
    if (!writer_.String(text.data(),
                        static_cast<rapidjson::SizeType>(text.size())))
      checker_->Problem(
          n, std::string(what) + " is not UTF-8 text, which JSON cannot carry");
  }
  Output& output_;
  std::string file_;
  BufferedStream stream_;
  rapidjson::Writer<BufferedStream, rapidjson::UTF8<>, rapidjson::UTF8<>,
                    rapidjson::CrtAllocator,
                    rapidjson::kWriteValidateEncodingFlag>
      writer_;
};

}  // namespace

int DocJson(const std::string& file, const std::string& output,
            std::ostream& out, std::ostream& err) {
  // The name as given (a revision of a history as REPO@REV), unless a
  // byte of it is no UTF-8, which JSON cannot carry: then as messages show
  // it.
  const std::string given = doc::NameOf(file);
  bool utf8 = true;
  for (std::size_t i = 0; i < given.size() && utf8;) {
    const std::size_t n = vantrel::Utf8At(given, i);
    utf8 = n > 0;
    i += n;
  }
  const std::string name = file == "-" ? "<stdin>"
                           : utf8      ? given
                                       : vantrel::Escaped(given);
  return CopyDocument(
      file, output,
      [&](Output& json) -> std::unique_ptr<ReportingWriter> {
        return std::make_unique<JsonWriter>(json, name);
      },
      {"the configuration of ", " as JSON", "no JSON was written"}, out, err);
}

}  // namespace vdoc
