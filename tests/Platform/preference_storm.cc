// Stores the service's suite as fast as it can, for ever, with lists of changing
// length; a test kills it at random moments.
#include <string>

#include "Platform/UserDefaults.h"

int main() {
  UserDefaults& defaults = UserDefaults::standardUserDefaults();
  for (unsigned round = 0;; ++round) {
    Value::Array list;
    for (unsigned i = 0; i < 1 + round % 300; ++i) {
      list.emplace_back(
          Value::Dictionary{{"OwnerFileID", Value(std::to_string(i))},
                            {"FileName", Value("/home/u/Tallowbox/f" + std::to_string(round))},
                            {"Blocked", Value("0")}});
    }
    defaults.setObject(Value(list), "SharedFileDataKey");
    defaults.synchronize();
  }
}
