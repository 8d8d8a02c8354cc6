#include "Platform/UniqueIdentifier.h"

#include <uuid/uuid.h>

Value::Uuid UniqueIdentifier::random() {
  uuid_t generated;
  uuid_generate_random(generated);
  Value::Uuid uuid{};
  for (std::size_t i = 0; i < uuid.size(); ++i) uuid[i] = generated[i];
  return uuid;
}

std::string UniqueIdentifier::canonicalString(const Value::Uuid& uuid) {
  uuid_t bytes;
  for (std::size_t i = 0; i < uuid.size(); ++i) bytes[i] = uuid[i];
  char text[37];  // 36 characters and the NUL
  uuid_unparse_upper(bytes, text);
  return text;
}
