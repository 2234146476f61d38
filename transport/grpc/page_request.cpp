#include "transport/grpc/page_request.h"

#include "tolvar.pb.h"

namespace tolvar {

v1::PageRequest pageRequest(const wire::PageQuery& query) {
  v1::PageRequest request;
  request.set_high(query.high);
  request.set_low(query.low);
  request.set_size(query.size);
  return request;
}

}  // namespace tolvar
