#include "secret.h"

#include <cstring>

namespace zevctl {

Secret::Secret() : place_(new Place) {}

bool Secret::Append(char byte) {
  if (place_->size == kLongest) return false;
  place_->bytes[place_->size++] = byte;
  place_->bytes[place_->size] = '\n';
  return true;
}

void Secret::Clear() {
  explicit_bzero(place_->bytes.data(), place_->bytes.size());
  place_->bytes[0] = '\n';
  place_->size = 0;
}

void Secret::Wiper::operator()(Place* place) const {
  explicit_bzero(place->bytes.data(), place->bytes.size());
  delete place;
}

}  // namespace zevctl
