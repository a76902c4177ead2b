// The process entry of Vantrel; everything else is in the library, where the
// tests reach it too.
#include "Vantrel.h"

int main(int argc, char* argv[]) { return VantrelMain(argc, argv); }
