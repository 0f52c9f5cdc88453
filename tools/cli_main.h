// The whole program behind main(): parses argv, runs the subcommand and
// returns the exit status. The fuzz targets call it with argument vectors
// of their own.
#ifndef MIRVAK_TOOLS_CLI_MAIN_H
#define MIRVAK_TOOLS_CLI_MAIN_H

int mirvak_hba_main(int argc, char** argv);

#endif
