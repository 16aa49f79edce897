// Placeholder demo until the command-line tool lands: prints the engine's banner.
#include <iostream>

int main() {
  std::cout << "gzl: generalized linear models and generalized estimating equations\n";
  return 0;
}
