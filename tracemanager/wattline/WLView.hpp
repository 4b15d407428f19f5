// WLView: what the views of a power capture share (see WLViews.hpp): the
// node they read, which they never own, and its replacement after a reload.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "experiments/VSKDataProvider.hpp"
#include "wattline/WLDataNode.hpp"

namespace VSKTspServer {

template <typename Provider>
class WLView : public Provider {
 public:
  explicit WLView(WLDataNode* node = nullptr) : node_(node) {}
  void setData(WLDataNode* node) { node_ = node; }

 protected:
  WLDataNode* node_;  // null: the view answers empty
};

}  // namespace VSKTspServer
