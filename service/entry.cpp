#include "main.h"

int main(int argc, char** argv) { return Tessaro::Iot::Quorvaned::quorvaned_main(argc, argv); }
