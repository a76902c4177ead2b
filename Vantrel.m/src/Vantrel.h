// Vantrel: exports the administration configuration to one XML document.
//
// Every exporter writes its element to the output stream, returns 0 on
// success and 1 on failure (after writing its message to standard error),
// and never releases the object it is given.
#pragma once

#include <fstream>

#include "KivAdmin.h"
#include "LumKivTrace.h"

// Nesting depth of the document writer: two blanks per level before a start
// tag. Exporters raise it on entry and lower it only when they succeed.
extern int indent;
// Non-zero when a stylesheet instruction is to be written, with cXSLFile.
extern int iXSL;
// The channel every trace step of the tool is opened on.
extern LumKivTrace traceVantrel;
extern LumUnicodeString cXSLFile;

// Writes the usage text to standard error; returns 0.
int help();
// The process entry: checks the command line, writes the document; returns
// the exit status.
int VantrelMain(int argc, char* argv[]);

// Writes the whole document to out, obtaining the root itself; returns 0 or 1.
int ReadAdmin(std::ofstream* out);
// Writes the prolog; always returns 0.
int DumpTitle(std::ofstream* out);
// Writes two blanks per level of indent.
void tab(std::ofstream* out);

int DumpRoot(std::ofstream* out, KivIAdmin* admin);
int DumpProject(std::ofstream* out, KivIProject* project);
int DumpDomain(std::ofstream* out, KivIDomain* domain);
int DumpBusinessDomain(std::ofstream* out, KivIBusinessDomain* businessDomain);
int DumpDataDomain(std::ofstream* out, KivIDataDomain* dataDomain);
int DumpServers(std::ofstream* out, KivIAdmin* admin);
int DumpDataServer(std::ofstream* out, KivIDataServer* dataServer);
int DumpVaultServer(std::ofstream* out, KivIVaultServer* vaultServer);
int DumpHost(std::ofstream* out, KivIHost* host);
int DumpExternSite(std::ofstream* out, KivIExternSite* site);
int DumpLocalSite(std::ofstream* out, KivILocalSite* site);
int DumpPackageDefinition(std::ofstream* out,
                          KivIReplPackageDefinition* definition);
// Writes a MEDIA element. Nothing in the document calls for one.
int DumpMedia(std::ofstream* out, KivIReplMedia* media);
int DumpSubscribingTarget(std::ofstream* out,
                          KivIReplSubscribingTarget* target);
int DumpSubscription(std::ofstream* out, KivIReplSubscription* subscription);
int DumpDataServerCaptureStatus(std::ofstream* out,
                                KivIReplCaptureStatus* status);
int DumpVaultServerCaptureStatus(std::ofstream* out,
                                 KivIReplCaptureStatus* status);
int DumpDataServerApplyStatus(std::ofstream* out, KivIReplApplyStatus* status);
int DumpVaultServerApplyStatus(std::ofstream* out, KivIReplApplyStatus* status);
