#include "VantrelDoc.h"

int main(int argc, char* argv[]) { return VantrelDocMain(argc, argv); }
