// Explanations: every public function that can fail leaves one line that says why, and none that
// succeeds touches it.
#include <gtest/gtest.h>
#include <string.h>

#include <functional>
#include <limits>

#include "base/zyn_explain.h"
#include "support/failing.h"
#include "support/net.h"
#include "zyncore_net.h"

using namespace zyn_test;

namespace {

constexpr char kMarker[] = "nothing has failed yet";

struct Call {
  const char* name;
  std::function<bool()> fails;  // whether the call failed
  const char* said;             // a part of the explanation
};

void expect_explained(const std::vector<Call>& calls) {
  for (const Call& call : calls) {
    SCOPED_TRACE(call.name);
    zyn_explain(kMarker);
    bool failed = false;
    printed([&] { failed = call.fails(); });
    EXPECT_TRUE(failed);
    const std::string text = zyn_error_detail();
    EXPECT_NE(text, kMarker);
    EXPECT_NE(text.find(call.said), std::string::npos) << text;
    EXPECT_EQ(text.find('\n'), std::string::npos) << text;
  }
}

// A graph of an input {4, 4, 2}, a constant of 19 floats and a 1 x 1 convolution of 2 to 3
// channels, bound and not prepared.
struct SmallGraph : Net {
  SmallGraph() {
    input(Array({4, 4, 2}));
    constant(Array({19}));
    op(ZYN_OP_CONV, zyn_conv_param{2, 3, 1, 1, 1, 1, 0, 0, {0, 0}, 1, 1, 1, 1, {0}, 0}, {0, 1});
    EXPECT_EQ(make(), 0);
  }
};

}  // namespace

TEST(Explain, EveryFailingCallOfContainersAndImagesSaysWhy) {
  const int32_t dims[3] = {4, 0, 2}, good[3] = {4, 3, 2};
  zyn_tensor* t = zyn_create_tensor(3, good, ZYN_TYPE_F32);
  zyn_tensor* none = nullptr;
  zyn_matrix* no_matrix = nullptr;
  zyn_matrix* m = zyn_create_matrix(2, 3, 1, 0);
  zyn_image* a = zyn_create_image(8, 8, ZYN_IMAGE_BGR);
  zyn_image* yuv = zyn_create_image(8, 8, ZYN_IMAGE_I420);
  zyn_image own = *a;
  int32_t four[4] = {};
  const int32_t wide[2] = {9, 9};
  void* planes[3] = {a->data, nullptr, nullptr};
  const char *bmp = "no/such/folder/a.bmp", *png = "a.png";
  zyn_darray* names = zyn_create_darray(&zyn_darray_str_type);
  float f[4] = {};
  expect_explained({
      {"malloc 0", [] { return !zyn_malloc(0); }, "at least 1 byte, 0"},
      {"malloc",
       [] {
         FailingAllocations failing(1);
         return !zyn_malloc(1000);
       },
       "no memory for 1000 bytes"},
      {"darray", [] { return !zyn_create_darray(nullptr); }, "is null"},
      {"list null", [&] { return zyn_get_specfic_files_for_given_dir(names, nullptr, "*.a") == 1; },
       "is null"},
      {"list", [&] { return zyn_get_specfic_files_for_given_dir(names, ".", "abc") == 1; },
       "the pattern 'abc'"},
      {"list folder",
       [&] { return zyn_get_specfic_files_for_given_dir(names, "no/such", "*.a") == 1; },
       "'no/such' cannot be entered"},
      {"list nothing",
       [&] { return zyn_get_specfic_files_for_given_dir(names, ".", "*.none") == 1; },
       "nothing in '.' matches '*.none'"},
      {"header", [&] { return !zyn_create_tensor_header(6, good, 6); }, "found 6 dimensions"},
      {"tensor", [&] { return !zyn_create_tensor(3, dims, 6); }, "3 dimensions, 4 x 0 x 2"},
      {"set header", [&] { return zyn_set_tensor_header(t, 3, nullptr, 6) == 1; }, "null"},
      {"set type", [&] { return zyn_set_tensor_header(t, 3, good, 5) == 1; }, "element type 5"},
      {"set data", [&] { return zyn_set_tensor_data(t, nullptr, 4) == 1; }, "is null"},
      {"set length", [&] { return zyn_set_tensor_data(t, f, 4) == 256; }, "96 bytes, found 4"},
      {"reference", [] { return zyn_set_tensor_reference_value(nullptr, 1) == 1; }, "is null"},
      {"layout", [] { return zyn_set_tensor_channel_layout(nullptr, 1) == 1; }, "is null"},
      {"release", [&] { return zyn_release_tensor(&none) == 1; }, "is null"},
      {"NCHW", [&] { return zyn_tensor_convert_NCHW2NHWC(nullptr, t) == 1; }, "is null"},
      {"NHWG", [&] { return zyn_tensor_convert_NHWG2NHWC(t, t) == 1; },
       "the source in layout 3, found 4 x 3 x 2 from 4 x 3 x 2 in layout 0"},
      {"softmax null", [&] { return zyn_tensor_softmax(t, nullptr, 1) == 1; }, "is null"},
      {"softmax", [&] { return zyn_tensor_softmax(t, t, 25) == 1; }, "groups of 25"},
      {"transform",
       [&] { return zyn_tensor_transform_data_from_fpi16_to_real32(t, t, 2, 16) == 1; },
       "found 24 of type 6, 24 of type 6, q 16"},
      {"matrix", [] { return !zyn_create_matrix(2, 0, 1, 0); }, "2 rows, 0 columns"},
      {"matrix size", [] { return !zyn_create_matrix(INT32_MAX, INT32_MAX, INT32_MAX, 7); },
       "no memory for 2147483647 rows"},
      {"matrix header", [] { return zyn_set_matrix_header(nullptr, 1, 1, 1, 0) == 1; }, "is null"},
      {"matrix data", [&] { return zyn_set_matrix_data(m, f, 5) == 256; }, "6 bytes, found 5"},
      {"matrix release", [&] { return zyn_release_matrix(&no_matrix) == 1; }, "is null"},
      {"random", [&] { return zyn_random_norm(m, f, f) == 4; }, "found type 0"},
      {"pose", [&] { return zyn_solve_ap3p(nullptr, nullptr, f, f, f, nullptr, four) == 1; },
       "null"},
      {"image", [] { return !zyn_create_image(0, 4, 2); }, "found 0 x 4, format 2"},
      {"image size", [] { return !zyn_create_image(60000, 60000, 5); }, "2^31 bytes or more"},
      {"recreate", [] { return !zyn_recreate_image(nullptr, 4, 4); }, "format 15"},
      {"image header", [&] { return zyn_set_image_header(&own, 3, 4, 0) == 1; },
       "at least 4 and a format of 0 to 14, found 3 x 4"},
      {"image data", [&] { return zyn_set_image_data(&own, a->data, 15) == 1; }, "found 15 bytes"},
      {"image length", [&] { return zyn_set_image_data(&own, a->data, 191) == 256; },
       "8 rows of 24 bytes are needed, found 191"},
      {"image both",
       [&] { return zyn_set_image_header_and_data(&own, 8, 8, 5, planes, four) == 1; },
       "found 8 x 8, stride 0"},
      {"read", [&] { return !zyn_create_image_from_file(bmp, 0); }, "cannot be opened"},
      {"read null", [] { return !zyn_create_image_from_file(nullptr, 0); }, "is null"},
      {"write", [&] { return zyn_image_write_to_file_with_level(bmp, a) == 8; }, bmp},
      {"write png", [&] { return zyn_image_write_to_file_with_level(png, a) == 256; }, "'a.png'"},
      {"write null", [&] { return zyn_image_write_to_file_with_level(nullptr, a) == 1; }, "null"},
      {"colour", [&] { return zyn_image_color_space_convert(yuv, a, 0) == 1; },
       "code 0: images of one size, format 0 to 2 or to 0, are needed, found 8 x 8 of format 5"},
      {"colour code", [&] { return zyn_image_color_space_convert(yuv, a, 99) == 4; },
       "one of the codes 0"},
      {"resizer", [&] { return zyn_image_resizer(yuv, a, 1) == 1; }, "of format 5 from 8 x 8"},
      {"resizer null", [&] { return zyn_image_resizer(nullptr, a, 1) == 1; },
       "destination is null"},
      {"crop", [&] { return zyn_image_cropped_patch(a, a, four, wide) == 1; }, "of the size"},
      {"rgba", [] { return zyn_convert_rgba_to_rgb(nullptr, nullptr, 1, 1) == 1; }, "is null"},
      {"input", [&] { return zyn_transform_image_data_for_ssd_detector(nullptr, a), true; },
       "null"},
      {"border", [&] { return !zyn_create_border_image(four, four + 1, four + 2, four + 3, a, 0); },
       "found 8 x 8 of format 0, ratio 0"},
      {"border null", [&] { return !zyn_create_border_image(four, four, four, four, nullptr, 1); },
       "is null"},
      {"patch", [&] { return zyn_image_cropped_patch_with_border(a, four, yuv, four, four) == 1; },
       "a patch inside both images"},
      {"patch null",
       [&] { return zyn_image_cropped_patch_with_border(a, nullptr, yuv, four, four) == 1; },
       "null"},
      {"priors", [] { return !zyn_generate_priors(0, 320, 0); }, "found 320 x 0"},
      {"nms", [] { return zyn_ssd_nms(nullptr, nullptr, 1, 0.5f) == 0; }, "null"},
  });
  zyn_release_tensor(&t);
  for (zyn_matrix* matrix : {m, a, yuv}) zyn_release_matrix(&matrix);
  zyn_free(names);
}

TEST(Explain, EveryFailingCallOfTheTrackerSaysWhy) {
  const zyn_sort_param param = {1, 1, 0.3f, 0}, bad = {1, 0, 0.3f, 0};
  zyn_sort_handle *sort = zyn_create_sort_handle(&param), *none = nullptr;
  zyn_sort_match_info* one = zyn_create_sort_match_info(1, 0);
  one->matched[0] = 0;
  one->matched[1] = 7;
  const float nan = std::numeric_limits<float>::quiet_NaN();
  const zyn_detection box = {1, 1, 2, 2, 1}, broken = {nan, nan, nan, nan, 1};
  int32_t ids[1] = {5};
  expect_explained({
      {"create", [&] { return !zyn_create_sort_handle(&bad); }, "needed, found 1, 0, 0.3"},
      {"release", [&] { return zyn_release_sort_handle(&none) == 1; }, "is null"},
      {"predict", [] { return !zyn_create_sort_predict(nullptr); }, "is null"},
      {"associate", [&] { return !zyn_associate_detections_to_trackers(&box, 0, &box, 1, 0.3f); },
       "found 0 and 1"},
      {"associate NaN",
       [&] { return !zyn_associate_detections_to_trackers(&broken, 1, &box, 1, 0.3f); },
       "a box that is not finite"},
      {"update null",
       [&] { return zyn_sort_update_detection(&box, ids, nullptr, 1, nullptr, sort) == 1; },
       "is null"},
      {"update", [&] { return zyn_sort_update_detection(&box, ids, nullptr, 1, one, sort) == 1; },
       "outside of 1 detections and 0 tracks"},
      {"update v2 null",
       [&] { return zyn_sort_update_detection_v2(&box, nullptr, nullptr, 1, nullptr, sort) == 1; },
       "is null"},
      {"update v2",
       [&] { return zyn_sort_update_detection_v2(&box, ids, nullptr, 1, nullptr, sort) == 32; },
       "no track has the id 5"},
      {"list", [] { return !zyn_sort_get_track_info(nullptr); }, "is null"},
      {"frames", [] { return zyn_sort_get_frame_count(nullptr) == UINT64_MAX; }, "is null"},
  });
  zyn_release_sort_match_info(&one);
  zyn_release_sort_handle(&sort);
}

TEST(Explain, EveryFailingCallOfAGraphSaysWhy) {
  SmallGraph small;
  zyn_cg_handle *g = small.graph(), *none = nullptr;
  Net unsorted;
  unsorted.input(Array({1}));
  unsorted.op(ZYN_OP_RELU, {0});
  printed([&] { ASSERT_EQ(unsorted.connect(), 0); });
  const zyn_cg_create_param no_nodes = {0, 1, {0, 0}, 0};
  const zyn_cg_node_desc relu = {ZYN_OP_RELU, nullptr, 0, nullptr, 0};
  const zyn_cg_node_desc conv = {ZYN_OP_CONV, nullptr, 0, nullptr, 0};
  const zyn_cg_node_desc odd = {99, nullptr, 0, nullptr, 0};
  float words[4] = {};
  const auto bind = zyn_bind_operator_onto_computation_graph;
  expect_explained({
      {"create", [&] { return !zyn_create_computation_graph_handle(&no_nodes); }, "max_nodes is 0"},
      {"release", [&] { return zyn_release_computation_graph_handle(&none) == 2; }, "is null"},
      {"method", [&] { return zyn_cg_set_conv_method(g, 3) == 1; }, "no method 3"},
      {"method null", [] { return zyn_cg_set_conv_method(nullptr, 0) == 1; }, "is null"},
      {"q list", [&] { return zyn_cg_set_ptr_q_list(g, nullptr) == 1; }, "is null"},
      {"q", [&] { return zyn_cg_get_q_from_list(g, 0) == UINT32_MAX; }, "no list of fraction bits"},
      {"edge null", [] { return zyn_add_one_edge_into_computation_graph(nullptr, 0, 1) == 1; },
       "is null"},
      {"edge", [&] { return zyn_add_one_edge_into_computation_graph(g, -1, 1) == 1; },
       "from node -1 to node 1"},
      {"sort", [] { return zyn_computation_graph_topo_sort(nullptr) == 1; }, "is null"},
      {"bind null", [&] { return bind(g, 0, nullptr, nullptr) == 1; }, "is null"},
      {"bind type", [&] { return bind(g, 0, &odd, nullptr) == 1; }, "no operator type 99"},
      {"bind node", [&] { return bind(g, 7, &relu, nullptr) == 1; }, "node 7: no edge names it"},
      {"bind twice", [&] { return bind(g, 2, &relu, nullptr) == 1; },
       "node 2 CONV: it has been bound before"},
      {"bind record", [&] { return bind(unsorted.graph(), 1, &conv, nullptr) == 1; },
       "node 1 CONV: it needs a record, found null"},
      {"prepare null", [] { return zyn_prepare_inference_computation(nullptr) == 1; }, "is null"},
      {"prepare", [&] { return unsorted.prepare() == 1; }, "node 0 has not been bound"},
      {"run null", [] { return zyn_computation_graph_inference(nullptr) == 1; }, "is null"},
      {"run", [&] { return small.run() == 1; }, "node 2 CONV: the latest preparation"},
      {"output null", [] { return !zyn_get_computation_node_inference_data(nullptr, 0); }, "null"},
      {"output id", [&] { return !zyn_get_computation_node_inference_data(g, 9); },
       "ids are 0 to 2"},
      {"output data", [&] { return !zyn_get_computation_node_inference_data(g, 0); }, "data node"},
      {"output early", [&] { return !zyn_get_computation_node_inference_data(g, 2); },
       "node 2 has no output"},
      {"model null", [] { return zyn_cg_load_model(nullptr, 1, "x") == 1; }, "is null"},
      {"model", [&] { return zyn_cg_load_model(words, 4, "no/such.zynm") == 1; },
       "'no/such.zynm' cannot be opened"},
      {"blocks", [] { return zyn_bind_extra_net(1, 1, 0, nullptr) == 1; }, "is null"},
      {"name", [&] { return zyn_cg_set_node_name(g, 300, "x") == 1; }, "node ids"},
      {"check", [&] { return zyn_cg_check(g, nullptr) == 1; }, "null"},
      {"writer", [] { return zyn_net_writer_input(nullptr, nullptr) == -1; }, "null"},
      {"writer constant", [] { return zyn_net_writer_constant(nullptr, "", nullptr) == -1; },
       "a c"},
      {"writer node", [] { return zyn_net_writer_node(nullptr, "", 9, nullptr, nullptr, 0) == -1; },
       "at least one node"},
      {"writer output", [] { return zyn_net_writer_output(nullptr, nullptr) == 1; }, "name"},
      {"writer q", [] { return zyn_net_writer_q(nullptr, 0, 1) == 1; }, "node 0"},
      {"writer method", [] { return zyn_net_writer_method(nullptr, 0, 1) == 1; }, "node 0"},
      {"writer metadata", [] { return zyn_net_writer_metadata(nullptr, "", "") == 1; }, "null"},
      {"writer file", [] { return !zyn_net_writer_load(nullptr); }, "null"},
      {"write", [] { return zyn_net_write(nullptr, "x") == 1; }, "writer is null"},
      {"write memory", [] { return zyn_net_write_memory(nullptr, nullptr, nullptr) == 1; },
       "place"},
      {"load", [] { return !zyn_net_load(nullptr, nullptr); }, "null"},
      {"load memory", [] { return !zyn_net_load_memory(nullptr, 0, nullptr); }, "null"},
      {"net release", [] { return zyn_net_release(nullptr) == 1; }, "null"},
      {"net input", [] { return !zyn_net_input(nullptr, "x"); }, "'x'"},
      {"net run", [] { return zyn_net_run(nullptr) == 1; }, "null"},
      {"net output", [] { return !zyn_net_output(nullptr, "x"); }, "'x'"},
      {"net describe", [] { return !zyn_net_describe(nullptr); }, "null"},
      {"net metadata", [] { return !zyn_net_metadata(nullptr, "x"); }, "'x'"},
      {"net memory", [] { return zyn_net_memory(nullptr, nullptr) == 1; }, "null"},
      {"net graph", [] { return !zyn_net_graph(nullptr); }, "null"},
  });
}

TEST(Explain, OperatorsSayWhatTheyExpectedAndFound) {
  const auto refused = [](int type, auto record, std::vector<int> input, int constant,
                          uint32_t fixed = 0, uint32_t q = 8) {
    Net net(fixed);
    std::vector<int> from = {net.input(Array(input, 1))};
    if (constant) from.push_back(net.constant(Array({constant}, 1)));
    const int node = net.op(type, record, from);
    EXPECT_EQ(net.connect(), 0);
    if (fixed) net.q_list(8, {{node, q}});
    zyn_explain(kMarker);
    int32_t code = 0;
    printed([&] { code = net.bind(); });
    if (!code) code = net.prepare();
    if (!code) code = net.run();
    EXPECT_NE(code, 0);
    return std::string(zyn_error_detail());
  };
  const zyn_conv_param conv = {4, 5, 3, 3, 1, 1, 1, 1, {0, 0}, 1, 1, 1, 1, {0}, 0};
  EXPECT_EQ(refused(ZYN_OP_CONV, conv, {8, 6, 3}, 185),
            "node 2 CONV: in_channels is 4, the input (node 0) has 3 channels");
  EXPECT_EQ(refused(ZYN_OP_CONV, conv, {8, 6, 4}, 185, 1, 30),
            "node 2 CONV: fraction bits: input 8 + weights 14 - output 30 = -8, 0 to 31 is needed; "
            "give the output at most 22");
  EXPECT_EQ(refused(ZYN_OP_MAX_POOL, zyn_pool_param{5, 5, 1, 1, 0}, {2, 2, 1}, 0),
            "node 1 MAX_POOL: a kernel of 5 x 5 on 2 x 2 x 1 leaves no output");
  EXPECT_EQ(refused(ZYN_OP_CHANNEL_SLICE, zyn_slice_param{0, 2, 5, 1, 0}, {2, 2, 4}, 0),
            "node 1 CHANNEL_SLICE: channels 5 to 6 of 4 are taken");
  EXPECT_EQ(refused(ZYN_OP_BATCH_NORM, zyn_bn_param{0, 0}, {2, 2, 4}, 15),
            "node 2 BATCH_NORM: constant holds 15 floats, gamma, beta, mean and variance of 4 "
            "channels = 16 are needed");
  EXPECT_EQ(refused(ZYN_OP_RESHAPE, zyn_reshape_param{1, {9}}, {2, 2, 4}, 0),
            "node 1 RESHAPE: 2 x 2 x 4 values do not fit into 9");
  EXPECT_EQ(refused(ZYN_OP_BATCH_NORM_FAST, zyn_bn_param{0, 0}, {2, 2, 4}, 16, 1),
            "node 2 BATCH_NORM_FAST: this type has no fixed-point form");
}

TEST(Explain, CallsThatSucceedLeaveTheTextAlone) {
  zyn_explain(kMarker);
  SmallGraph small;
  EXPECT_EQ(small.prepare(), 0);
  EXPECT_EQ(small.run(), 0);
  EXPECT_TRUE(small.output_tensor(2));
  EXPECT_STREQ(zyn_error_detail(), kMarker);
}
