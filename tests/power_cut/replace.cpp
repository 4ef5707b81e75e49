// Replaces the contents of a file: replace FILE CONTENTS
#include "vutil/io.h"

int main(int, char** arguments) {
  return vutil::set_file_contents(arguments[1], arguments[2], 0600) == 0 ? 0 : 1;
}
