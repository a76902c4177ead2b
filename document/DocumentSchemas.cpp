#include "DocumentSchemas.h"

#include <rapidjson/document.h>
#include <rapidjson/error/en.h>
#include <rapidjson/prettywriter.h>
#include <rapidjson/stringbuffer.h>

#include <algorithm>
#include <cstring>
#include <vector>

#include "AdminDocument.h"

namespace doc {
namespace {

// The DTD's attribute type of a field.
const char* DtdType(Field field) {
  switch (field) {
    case Field::kOid:
      return "ID";
    case Field::kRef:
      return "IDREF";
    case Field::kRefs:
      return "IDREFS";
    case Field::kFlag:
      return "(Y|N)";
    case Field::kText:
    case Field::kMedia:  // a media has no element to name
      break;
  }
  return "CDATA";
}

// The content of element kind (kKindCount for AdminObjects): its children
// in order, each any number of times or at most once.
std::string Content(Kind kind) {
  std::string content;
  for (int k = 0; k < kKindCount; ++k) {
    const Layout& child = LayoutOf(Kind(k));
    if (child.parent != kind) continue;
    content += std::string(content.empty() ? "(" : ", ") + child.name +
               (child.single ? "?" : "*");
  }
  return content.empty() ? "EMPTY" : content + ")";
}

// The declaration of element name, its content wrapped to lines of at most
// 78 characters, each continuation under the first child.
std::string ElementDeclaration(const char* name, const std::string& content) {
  const std::string head = std::string("<!ELEMENT ") + name + " ";
  std::string out = head, line = head;
  std::size_t at = 0;
  while (at < content.size()) {
    std::size_t end = content.find(", ", at);
    end = end == std::string::npos ? content.size() : end + 2;
    std::string piece = content.substr(at, end - at);
    if (line.size() + piece.size() > 78 && line.size() > head.size() + 1) {
      while (!out.empty() && out.back() == ' ') out.pop_back();
      out += "\n" + std::string(head.size() + 1, ' ');
      line = std::string(head.size() + 1, ' ');
    }
    out += piece;
    line += piece;
    at = end;
  }
  return out + ">\n";
}

const char kDtdHead[] =
    "<!-- KivAdmin.dtd: the AdminObjects document, an administration "
    "configuration\n"
    "     exported by Vantrel. Every object carries its identifier in Oid "
    "(an ID);\n"
    "     every reference names one (an IDREF; IDREFS for a list), so that "
    "a\n"
    "     validating reader reports a reference to an object the document "
    "lacks.\n"
    "     A replication media has no element of its own: Media stays "
    "CDATA.\n"
    "     Values are written unescaped, so a value holding \"<\", \"&\" or "
    "a double\n"
    "     quote makes the document ill-formed before any DTD applies.\n"
    "     A validating parser finds this file beside the document it "
    "checks.\n"
    "     Made from the element table of the build: not edited by hand. "
    "-->\n";

}  // namespace

std::string Dtd() {
  std::string dtd = kDtdHead;
  dtd += "\n" + ElementDeclaration("AdminObjects", Content(kKindCount));
  for (int k = 0; k < kKindCount; ++k) {
    const Layout& layout = LayoutOf(Kind(k));
    dtd += "\n" + ElementDeclaration(layout.name, Content(Kind(k)));
    if (layout.attributes.empty()) continue;
    std::size_t width = 0;
    for (const Attribute& a : layout.attributes)
      width = std::max(width, std::strlen(a.name));
    dtd += std::string("<!ATTLIST ") + layout.name;
    for (const Attribute& a : layout.attributes) {
      const std::string type = DtdType(a.field);
      dtd += std::string("\n  ") + a.name +
             std::string(width + 1 - std::strlen(a.name), ' ') + type +
             std::string(type.size() < 6 ? 7 - type.size() : 1, ' ') +
             (a.optional ? "#IMPLIED" : "#REQUIRED");
    }
    dtd += ">\n";
  }
  return dtd;
}

namespace {

using SchemaWriter = rapidjson::PrettyWriter<rapidjson::StringBuffer>;

// {"$ref": to}.
void Ref(SchemaWriter& w, const char* to) {
  w.StartObject();
  w.Key("$ref");
  w.String(to);
  w.EndObject();
}

// {"type": type}, or with a description too.
void Typed(SchemaWriter& w, const char* type, const char* description = "") {
  w.StartObject();
  w.Key("type");
  w.String(type);
  if (*description) {
    w.Key("description");
    w.String(description);
  }
  w.EndObject();
}

// The document's own keys: its format, its name, its stylesheet, its
// objects.
void DocumentProperties(SchemaWriter& w) {
  w.Key("properties");
  w.StartObject();
  w.Key("format");
  w.StartObject();
  w.Key("const");
  w.String("vantrel-doc json 1");
  w.EndObject();
  w.Key("document");
  Typed(w, "string", "The document's file name, or <stdin>.");
  w.Key("stylesheet");
  Typed(w, "string",
        "The path of the document's xml-stylesheet instruction, when it has "
        "one.");
  w.Key("objects");
  w.StartObject();
  w.Key("type");
  w.String("array");
  w.Key("items");
  Ref(w, "#/$defs/object");
  w.EndObject();
  w.EndObject();
}

// The schema of an attribute's value, by its field.
void AttributeSchema(SchemaWriter& w, const Attribute& a) {
  switch (a.field) {
    case Field::kFlag:
      w.StartObject();
      w.Key("enum");
      w.StartArray();
      w.String("Y");
      w.String("N");
      w.EndArray();
      w.EndObject();
      break;
    case Field::kRefs:
      Ref(w, "#/$defs/ids");
      break;
    case Field::kMedia:
      w.StartObject();
      w.Key("$ref");
      w.String("#/$defs/id");
      w.Key("description");
      w.String("A replication media: it has no object of its own.");
      w.EndObject();
      break;
    case Field::kOid:
    case Field::kRef:
      Ref(w, "#/$defs/id");
      break;
    case Field::kText:
      Ref(w, "#/$defs/text");
      break;
  }
}

// An object's attributes: every attribute but the identifier, once, by
// the first element that has it: an attribute of one name holds one kind
// of value in every element.
void AttributesSchema(SchemaWriter& w) {
  w.StartObject();
  w.Key("type");
  w.String("object");
  w.Key("additionalProperties");
  w.Bool(false);
  w.Key("properties");
  w.StartObject();
  std::vector<std::string> seen{"Oid"};
  for (int k = 0; k < kKindCount; ++k)
    for (const Attribute& a : LayoutOf(Kind(k)).attributes) {
      if (std::find(seen.begin(), seen.end(), a.name) != seen.end()) continue;
      seen.push_back(a.name);
      w.Key(a.name);
      AttributeSchema(w, a);
    }
  w.EndObject();
  w.EndObject();
}

// An object: its kind, its identifier, its parent's, its attributes.
void ObjectSchema(SchemaWriter& w) {
  w.StartObject();
  w.Key("type");
  w.String("object");
  w.Key("required");
  w.StartArray();
  for (const char* key : {"kind", "id", "parent", "attributes"}) w.String(key);
  w.EndArray();
  w.Key("additionalProperties");
  w.Bool(false);
  w.Key("properties");
  w.StartObject();
  w.Key("kind");
  w.StartObject();
  w.Key("enum");
  w.StartArray();
  // The objects: the elements with an identifier.
  for (int k = 0; k < kKindCount; ++k)
    if (AttributeIndex(Kind(k), "Oid") >= 0) w.String(LayoutOf(Kind(k)).name);
  w.EndArray();
  w.EndObject();
  w.Key("id");
  Ref(w, "#/$defs/id");
  w.Key("parent");
  w.StartObject();
  w.Key("description");
  w.String(
      "The identifier of the parent element, for an element nested in an "
      "object; null for the others.");
  w.Key("oneOf");
  w.StartArray();
  Typed(w, "null");
  Ref(w, "#/$defs/id");
  w.EndArray();
  w.EndObject();
  w.Key("attributes");
  AttributesSchema(w);
  w.EndObject();
  w.EndObject();
}

// What the schema's parts refer to: an identifier, a list of them, a text,
// an object.
void Definitions(SchemaWriter& w) {
  w.Key("$defs");
  w.StartObject();
  w.Key("id");
  w.StartObject();
  w.Key("type");
  w.String("string");
  w.Key("pattern");
  w.String("^x([0-9A-F]{2})+$");
  w.EndObject();
  w.Key("ids");
  w.StartObject();
  w.Key("type");
  w.String("array");
  w.Key("items");
  Ref(w, "#/$defs/id");
  w.Key("minItems");
  w.Int(1);
  w.EndObject();
  w.Key("text");
  Typed(w, "string");
  w.Key("object");
  ObjectSchema(w);
  w.EndObject();
}

}  // namespace

std::string DocumentJsonSchema() {
  rapidjson::StringBuffer buffer;
  SchemaWriter w(buffer);
  w.SetIndent(' ', 2);
  w.StartObject();
  w.Key("$schema");
  w.String("https://json-schema.org/draft/2020-12/schema");
  w.Key("$id");
  w.String("vantrel-doc.schema.json");
  w.Key("title");
  w.String("An administration configuration, as vantrel-doc json writes it");
  w.Key("description");
  w.String(
      "Every object of an AdminObjects document in the order of the "
      "document: its kind (the element's name), its identifier, its "
      "parent's identifier and its attributes by name with their exact "
      "values. References are identifiers, so that an object names another "
      "by its id. Made from the element table of the build.");
  w.Key("type");
  w.String("object");
  w.Key("required");
  w.StartArray();
  for (const char* key : {"format", "document", "objects"}) w.String(key);
  w.EndArray();
  w.Key("additionalProperties");
  w.Bool(false);
  DocumentProperties(w);
  Definitions(w);
  w.EndObject();
  return std::string(buffer.GetString(), buffer.GetSize()) + "\n";
}

namespace {

// The attributes of kind that a report shows, Name first, then the others
// in the element's order.
std::vector<const Attribute*> ReportedAttributes(Kind kind) {
  std::vector<const Attribute*> shown;
  const auto& attributes = LayoutOf(kind).attributes;
  for (const Attribute& a : attributes)
    if (std::strcmp(a.name, "Name") == 0) shown.push_back(&a);
  for (const Attribute& a : attributes)
    if (std::strcmp(a.name, "Name") != 0) shown.push_back(&a);
  return shown;
}

// A template per element that has attributes, in mode "cells": a row's
// cells, one per attribute shown. Identifiers are set apart, references
// link to what they name. Written out per element, a row costs the
// stylesheet no search among its attributes.
std::string CellTemplates() {
  std::string out;
  for (int k = 0; k < kKindCount; ++k) {
    const Kind kind = Kind(k);
    if (LayoutOf(kind).attributes.empty()) continue;
    out += std::string("  <xsl:template match=\"") + LayoutOf(kind).name +
           "\" mode=\"cells\">\n";
    for (const Attribute* a : ReportedAttributes(kind)) {
      const std::string value = std::string("@") + a->name;
      switch (a->field) {
        case Field::kOid:
        case Field::kMedia:
          out += "    <td class=\"oid\"><xsl:value-of select=\"" + value +
                 "\"/></td>\n";
          break;
        case Field::kRef:
        case Field::kRefs:
          out +=
              "    <td><xsl:call-template name=\"links\"><xsl:with-param "
              "name=\"oids\" select=\"normalize-space(" +
              value + ")\"/></xsl:call-template></td>\n";
          break;
        case Field::kText:
        case Field::kFlag:
          out += "    <td><xsl:value-of select=\"" + value + "\"/></td>\n";
          break;
      }
    }
    out += "  </xsl:template>\n";
  }
  return out;
}

}  // namespace

bool FillColumns(const std::string& text, std::string* out,
                 std::string* error) {
  static const std::string kOpen = "@COLUMNS(", kClose = ")@",
                           kCells = "@CELLS@";
  if (text.find(kCells) != std::string::npos) {
    std::string filled = text;
    filled.replace(filled.find(kCells), kCells.size(), CellTemplates());
    return FillColumns(filled, out, error);
  }
  out->clear();
  std::size_t at = 0;
  for (;;) {
    const std::size_t open = text.find(kOpen, at);
    if (open == std::string::npos) break;
    const std::size_t close = text.find(kClose, open);
    if (close == std::string::npos) {
      *error = "an unended " + kOpen;
      return false;
    }
    out->append(text, at, open - at);
    const std::string name =
        text.substr(open + kOpen.size(), close - open - kOpen.size());
    int kind = 0;
    while (kind < kKindCount && name != LayoutOf(Kind(kind)).name) ++kind;
    if (kind == kKindCount) {
      *error = name + " is no element";
      return false;
    }
    for (const Attribute* a : ReportedAttributes(Kind(kind)))
      *out += std::string(a->name) + " ";
    at = close + kClose.size();
  }
  out->append(text, at, std::string::npos);
  return true;
}

bool PlanJsonSchema(const std::string& templ, std::string* out,
                    std::string* error) {
  rapidjson::StringBuffer kinds, byKind;
  {
    rapidjson::Writer<rapidjson::StringBuffer> w(kinds);
    w.StartArray();
    for (int k = 0; k < kKindCount; ++k)
      if (AttributeIndex(Kind(k), "Oid") >= 0) w.String(LayoutOf(Kind(k)).name);
    w.EndArray();
  }
  for (int k = 0; k < kKindCount; ++k) {
    const Layout& layout = LayoutOf(Kind(k));
    if (AttributeIndex(Kind(k), "Oid") < 0) continue;
    rapidjson::Writer<rapidjson::StringBuffer> w(byKind);
    if (byKind.GetSize()) byKind.Put(',');
    // {"if": kind is K, "then": each attribute is one of K's}
    w.StartObject();
    w.Key("if");
    w.StartObject();
    w.Key("properties");
    w.StartObject();
    w.Key("kind");
    w.StartObject();
    w.Key("const");
    w.String(layout.name);
    w.EndObject();
    w.EndObject();
    w.EndObject();
    w.Key("then");
    w.StartObject();
    w.Key("properties");
    w.StartObject();
    w.Key("attributes");
    w.StartObject();
    w.Key("items");
    w.StartObject();
    w.Key("properties");
    w.StartObject();
    w.Key("attribute");
    w.StartObject();
    w.Key("enum");
    w.StartArray();
    for (const Attribute& a : layout.attributes) w.String(a.name);
    w.EndArray();
    w.EndObject();
    w.EndObject();
    w.EndObject();
    w.EndObject();
    w.EndObject();
    w.EndObject();
    w.EndObject();
  }
  std::string text = templ;
  for (const auto& [mark, with] :
       {std::make_pair(std::string("\"@KINDS@\""), kinds.GetString()),
        std::make_pair(std::string("\"@ATTRIBUTES_BY_KIND@\""),
                       byKind.GetString())}) {
    const std::size_t at = text.find(mark);
    if (at == std::string::npos) {
      *error = "the template has no " + mark;
      return false;
    }
    text.replace(at, mark.size(), with);
  }
  rapidjson::Document parsed;
  parsed.Parse(text.c_str());
  if (parsed.HasParseError()) {
    *error = std::string("not JSON at offset ") +
             std::to_string(parsed.GetErrorOffset()) + ": " +
             rapidjson::GetParseError_En(parsed.GetParseError());
    return false;
  }
  rapidjson::StringBuffer buffer;
  rapidjson::PrettyWriter<rapidjson::StringBuffer> w(buffer);
  w.SetIndent(' ', 2);
  parsed.Accept(w);
  *out = std::string(buffer.GetString(), buffer.GetSize()) + "\n";
  return true;
}

}  // namespace doc
