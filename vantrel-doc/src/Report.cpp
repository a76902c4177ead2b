#include <libexslt/exslt.h>
#include <libxml/parser.h>
#include <libxml/tree.h>
#include <libxslt/transform.h>
#include <libxslt/variables.h>
#include <libxslt/xsltInternals.h>
#include <libxslt/xsltutils.h>

#include <cstring>
#include <memory>
#include <ostream>
#include <sstream>

#include "Checker.h"
#include "DocumentWalk.h"
#include "Output.h"
#include "ReportPicture.h"
#include "TwinWriter.h"
#include "VantrelDoc.h"

extern const char* const kReportXsl;

namespace vdoc {

// The report stylesheet, compiled in from share/vantrel-report.xsl: the one
// definition of the report, which xsltproc applies too.

namespace {

struct FreeDoc {
  void operator()(xmlDoc* doc) const { xmlFreeDoc(doc); }
};
using Doc = std::unique_ptr<xmlDoc, FreeDoc>;

// Libxml2 reads the twin and the picture without a DTD, an entity or the
// network.
constexpr int kParseOptions = XML_PARSE_NONET | XML_PARSE_NOCDATA;

// The element of doc whose id is id, or null.
xmlNode* ById(xmlNode* node, const char* id) {
  for (; node; node = node->next) {
    if (node->type != XML_ELEMENT_NODE) continue;
    xmlChar* value = xmlGetProp(node, BAD_CAST "id");
    const bool found = value && xmlStrEqual(value, BAD_CAST id);
    xmlFree(value);
    if (found) return node;
    if (xmlNode* inside = ById(node->children, id)) return inside;
  }
  return nullptr;
}

void Silent(void*, const char*, ...) {}

// Makes the HTML page of twin, with the picture; false with *error set.
bool MakeReport(const std::string& twin, const std::string& shown,
                const std::string& svg, std::string* html, std::string* error) {
  // What the libraries find is told through their results, never raw.
  doc::QuietXmlErrors();
  xsltSetGenericErrorFunc(nullptr, Silent);
  // The strings of EXSLT: the report finds what a list names by a key.
  exsltRegisterAll();
  // The twin is this tool's own, checked as it was made: a value of any
  // length is read.
  Doc document(xmlReadMemory(twin.data(), static_cast<int>(twin.size()),
                             nullptr, nullptr, kParseOptions | XML_PARSE_HUGE));
  Doc stylesheet(xmlReadMemory(kReportXsl,
                               static_cast<int>(std::strlen(kReportXsl)),
                               nullptr, nullptr, kParseOptions));
  if (!document || !stylesheet) {
    *error = "the well-formed copy cannot be read";
    return false;
  }
  // The stylesheet takes over its document.
  xsltStylesheetPtr style = xsltParseStylesheetDoc(stylesheet.release());
  if (!style) {
    *error = "the report stylesheet cannot be read";
    return false;
  }
  const char* params[] = {"document", shown.c_str(), "picture", "yes", nullptr};
  xsltTransformContextPtr context =
      xsltNewTransformContext(style, document.get());
  Doc result;
  if (context && xsltQuoteUserParams(context, params) == 0)
    result.reset(xsltApplyStylesheetUser(style, document.get(), nullptr,
                                         nullptr, nullptr, context));
  if (context) xsltFreeTransformContext(context);
  bool made = false;
  if (result) {
    // The picture takes its place in the page.
    Doc picture(xmlReadMemory(svg.data(), static_cast<int>(svg.size()), nullptr,
                              nullptr, kParseOptions));
    xmlNode* slot = ById(xmlDocGetRootElement(result.get()), "vantrel-picture");
    if (picture && slot)
      xmlAddChild(slot, xmlDocCopyNode(xmlDocGetRootElement(picture.get()),
                                       result.get(), 1));
    xmlChar* bytes = nullptr;
    int size = 0;
    made = xsltSaveResultToString(&bytes, &size, result.get(), style) == 0;
    if (made) html->assign(reinterpret_cast<const char*>(bytes), size);
    xmlFree(bytes);
  }
  xsltFreeStylesheet(style);
  if (!made) *error = "the report stylesheet cannot be applied";
  return made;
}

}  // namespace

int DocReport(const std::string& file, const std::string& output,
              std::ostream& out, std::ostream& err, bool showSecrets) {
  // The report is made from the well-formed twin, so that any document the
  // exporter writes has one, in memory as the page is.
  std::ostringstream twin;
  // A value XML cannot carry is shown as messages show it, and a secret
  // masked unless asked for.
  TwinWriter writer(
      twin,
      [&](std::string*) {
        twin.str("");
        return true;
      },
      true, !showSecrets);
  PictureData data;
  doc::Both both(writer, data);
  doc::Checker checker(file, err, &both);
  writer.ReportTo(&checker);
  if (!checker.Run()) return 2;
  if (checker.Problems()) {
    err << "vantrel-doc: " << doc::Shown(file)
        << " is refused: no report was made\n";
    return 1;
  }
  std::string svg, html, error;
  if (!DrawPicture(data, &svg, &error) ||
      !MakeReport(twin.str(), doc::Shown(file), svg, &html, &error)) {
    err << "vantrel-doc: cannot make the report of " << doc::Shown(file) << ": "
        << error << "\n";
    return 2;
  }
  Output page;
  bool written = page.Open(output, {file}, &error);
  if (written) {
    page.Stream() << html;  // a write that fails is told by the commit
    written = page.Commit(&error);
  }
  if (!written) {
    err << "vantrel-doc: cannot write " << doc::ShownOutput(output) << ": "
        << error << "\n";
    return 2;
  }
  if (output != "-")
    out << doc::Shown(output) << ": the report of " << doc::Shown(file) << "\n";
  return 0;
}

}  // namespace vdoc
