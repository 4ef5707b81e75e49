// Replaces the contents of a file: replace FILE CONTENTS
#include "vutil/io.h"

int main(int, char** argv) { return vutil::set_file_contents(argv[1], argv[2], 0600) == 0 ? 0 : 1; }
