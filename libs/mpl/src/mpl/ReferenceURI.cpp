#include "mpl/ReferenceURI.h"

#include "qvc/URI.h"

namespace mpl {

qvc::FastString ReferenceURI::resolve() const {
  return qvc::URI(base.get()).resolve(qvc::URI(uri.get())).toRawString();
}

} // namespace mpl
