// Two threads, each with graphs, a tracker and images of its own, share nothing but what
// the first use of the library sets up and the byte counter, which loses nothing. Built
// with the thread sanitizer, this program shows that there is no more to share.
#include <gtest/gtest.h>
#include <string.h>

#include <string>
#include <thread>

#include "zyncore.h"

namespace {

constexpr int32_t kDims[3] = {24, 17, 8}, kWeights = 8 * 8 * 9 + 8;

void add_graph(std::string* bits, uint32_t method) {
  zyn_tensor* in = zyn_create_tensor(3, kDims, ZYN_TYPE_F32);
  zyn_tensor* weights = zyn_create_tensor(1, &kWeights, ZYN_TYPE_F32);
  for (zyn_tensor* t : {in, weights})
    for (int i = 0; i < t->count; i++)
      static_cast<float*>(t->data)[i] = 0.01f * (i * 37 % 101 - 50);
  zyn_cg_handle* graph = zyn_create_computation_graph_handle(nullptr);
  zyn_cg_set_conv_method(graph, method);
  for (const int32_t from : {0, 1}) zyn_add_one_edge_into_computation_graph(graph, from, 2);
  EXPECT_EQ(zyn_computation_graph_topo_sort(graph), 0);
  const zyn_cg_node_desc nodes[2] = {{ZYN_OP_INPUT, in, 0, nullptr, 0},
                                     {ZYN_OP_CONSTANT, weights, 0, nullptr, 0}};
  for (const int32_t id : {0, 1})
    zyn_bind_operator_onto_computation_graph(graph, id, nodes + id, nullptr);
  EXPECT_EQ(zyn_bind_std_conv2d(8, 8, 0, 2, graph), 0);
  EXPECT_EQ(zyn_prepare_inference_computation(graph), 0);
  EXPECT_EQ(zyn_computation_graph_inference(graph), 0);
  const zyn_tensor* out = zyn_get_computation_node_inference_data(graph, 2);
  bits->append(static_cast<const char*>(out->data), static_cast<size_t>(out->byte_size));
  zyn_release_computation_graph_handle(&graph);
  for (zyn_tensor* t : {in, weights}) zyn_release_tensor(&t);
}

void add_frame(std::string* bits, zyn_sort_handle* sort, float x) {
  const zyn_detection boxes[2] = {{x, 0, x + 9, 9, 1}, {x + 50, 0, x + 60, 9, 1}};
  const int32_t ids[2] = {x > 0 ? 0 : -1, x > 0 ? 1 : -1};
  zyn_track_info* info = zyn_create_sort_predict(sort);
  zyn_release_track_info(&info);
  EXPECT_EQ(zyn_sort_update_detection_v2(boxes, ids, nullptr, 2, nullptr, sort), 0);
  info = zyn_sort_get_track_info(sort);
  bits->append(reinterpret_cast<const char*>(info->boxes), 32);
  zyn_release_track_info(&info);
  zyn_image *a = zyn_create_image(31, 17, 0), *b = zyn_create_image(13, 22, 0);
  memset(a->data, static_cast<int>(x) + 3, static_cast<size_t>(a->rows * a->row_bytes));
  EXPECT_EQ(zyn_image_resizer(b, a, 1), 0);
  bits->append(static_cast<const char*>(b->data), static_cast<size_t>(b->rows * b->row_bytes));
  for (zyn_image* image : {a, b}) zyn_release_matrix(&image);
}

void work(std::string* bits) {
  const zyn_sort_param param = {1, 1, 0.3f, 0};
  zyn_sort_handle* sort = zyn_create_sort_handle(&param);
  for (int round = 0; round < 30; round++) {
    add_graph(bits, static_cast<uint32_t>(round % 3));
    add_frame(bits, sort, static_cast<float>(round));
  }
  zyn_release_sort_handle(&sort);
}

TEST(Threads, TwoAtOnceComputeWhatOneDoes) {
  std::string alone, bits[2];
  zyn_get_current_system_time();
  work(&alone);  // the first use, before other threads start
  std::thread first(work, &bits[0]), second(work, &bits[1]);
  first.join();
  second.join();
  for (const std::string& got : bits) EXPECT_TRUE(got == alone);
  EXPECT_EQ(zyn_get_current_memory_size_occupation(), 0u);
}

}  // namespace
