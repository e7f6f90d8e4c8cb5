// A bare process: a C++ program that links only the standard library. It
// starts and ends; the floor of every whole-process figure.
#include <string>

int main(int argc, char** argv) {
  const std::string word = argc > 1 ? argv[1] : "";
  return word == "--fail" ? 1 : 0;
}
