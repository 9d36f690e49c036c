/*
 * corvane-lab: the laboratory.
 */
#include "commands.h"

int main(int argc, char **argv) { return corvane::lab::runCommand(argc, argv); }
