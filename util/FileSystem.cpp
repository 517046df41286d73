#include "util/FileSystem.h"

FileSystem* FileSystem::posix() {
  static FileSystem real;
  return &real;
}
