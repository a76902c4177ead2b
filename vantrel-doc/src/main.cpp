#include "VantrelDoc.h"

int main(int argc, char* argv[]) { return vdoc::VantrelDocMain(argc, argv); }
