// The hivecopy program: one upload command object for the process's life.
#include "hopper/hivecopy.h"

int main(int argc, char** argv) {
  HiveCopy app(gOptions, "Hopper hivecopy");
  return app.start(argc, argv);
}
