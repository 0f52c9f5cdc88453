#include "tools/cli_main.h"

int main(int argc, char** argv) { return mirvak_hba_main(argc, argv); }
