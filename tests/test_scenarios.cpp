// Every allocation fails: scenarios over the public interface, each repeated with its n-th
// allocation failing, once and from there on, n growing until nothing fails. A failure
// has its code and its report, nothing is lost but the header that a tensor without data
// loses on purpose, and the same scenario gives the same bits afterwards.
#include <array>
#include <filesystem>
#include <fstream>

#include "base/zyn_darray.h"
#include "support/ledger.h"
#include "support/model.h"

namespace {

using namespace zyn_test;

void let_go(zyn_tensor* t) { zyn_release_tensor(&t); }
void let_go(zyn_matrix* m) { zyn_release_matrix(&m); }
void let_go(zyn_cg_handle* g) { zyn_release_computation_graph_handle(&g); }
void let_go(zyn_sort_handle* s) { zyn_release_sort_handle(&s); }
void let_go(zyn_sort_match_info* m) { zyn_release_sort_match_info(&m); }
void let_go(zyn_track_info* i) { zyn_release_track_info(&i); }
void let_go(void* block) { zyn_free(block); }
void let_go(zyn_darray* list) { zyn_release_darray(&list); }

// One attempt: codes, what was made, and the bits that came out.
class Scene {
 public:
  Scene(int n, bool lasting) : n_(n), lasting_(lasting) {}
  ~Scene() {
    disarm();
    for (; !owned_.empty(); owned_.pop_back()) owned_.back()();
  }
  // From here on allocations count and fail; without failures afterwards.
  void arm() {
    Ledger::fail(n_, lasting_);
    armed_ = true;
  }
  void disarm() {
    if (armed_) seen = Ledger::seen();
    armed_ = false;
    Ledger::fail(0, false);
  }
  bool ok(int32_t answer) { return (code = answer) == 0; }
  template <typename T>
  T* own(T* record) {
    if (record)
      owned_.push_back([record] { let_go(record); });
    else
      code = ZYN_RET_ERR_MEMORY;
    return record;
  }
  zyn_image* image(int width, int height, uint32_t format) {
    zyn_image* made = own(zyn_create_image(width, height, format));
    for (size_t i = 0; made && i < buffer(made); i++)
      static_cast<uint8_t*>(made->data)[i] = static_cast<uint8_t>(i * 37 + i / 5);
    return made;
  }
  void keep(const void* block, size_t bytes) {
    bits.append(static_cast<const char*>(block), bytes);
  }
  void keep(const zyn_image* image) {
    if (image) keep(image->data, buffer(image));
  }
  void keep(const zyn_track_info* info) {
    const size_t count = info ? static_cast<size_t>(info->count) : 0;
    if (!count) return;
    keep(info->boxes, 16 * count);
    keep(info->ids, 4 * count);
    keep(info->payload, 6 * count);
  }

  int32_t code = 0;
  int seen = 0;
  bool any_code = false;  // a failure may show later, or not at all
  std::string bits;

 private:
  static size_t buffer(const zyn_image* m) {
    const auto luma = static_cast<size_t>(m->rows * m->row_bytes);
    const bool halves = m->format == 5 || m->format == 12 || m->format == 13;
    return m->format == 6 ? 3 * luma : halves ? luma * 3 / 2 : luma;
  }
  int n_;
  bool lasting_, armed_ = false;
  std::vector<std::function<void()>> owned_;
};

constexpr zyn_sort_param kTracker = {3, 1, 0.3f, 6};  // payloads of six bytes
using Act = std::function<void(Scene&)>;
using Sizes = std::array<int, 4>;
enum Says { kSilent, kReported, kAny };

// What an attempt leaves behind besides its outcome is the ledger's to check.
template <typename Outcome>
void attempt(const Act& act, int n, bool lasting, Outcome outcome) {
  const uint64_t before = zyn_get_current_memory_size_occupation();
  {
    Ledger ledger;
    Scene scene(n, lasting);
    const std::string text = printed([&] { act(scene), scene.disarm(); });
    outcome(scene, text);
  }
  EXPECT_EQ(zyn_get_current_memory_size_occupation(), before);
}

// Returns how many allocations the scenario takes.
int fails_everywhere(const std::string& name, Says says, const Act& act) {
  SCOPED_TRACE(name);
  std::string bits, quiet;
  int needed = 0;
  const auto succeeds = [&](const Scene& scene, const std::string& text) {
    EXPECT_EQ(scene.code, 0);
    EXPECT_TRUE(scene.bits == bits) << "other bits";
    EXPECT_EQ(text, quiet);
  };
  attempt(act, 0, false, [&](const Scene& s, const std::string& text) {
    bits = s.bits, quiet = text, needed = s.seen;
    EXPECT_EQ(s.code, 0);
  });
  for (bool lasting : {false, true})
    for (int n = 1; n <= needed && !::testing::Test::HasFailure(); n++) {
      SCOPED_TRACE("allocation " + std::to_string(n) + (lasting ? " and later fail" : " fails"));
      attempt(act, n, lasting, [&](const Scene& s, const std::string& text) {
        if (s.any_code && s.code == 0) return succeeds(s, text);
        EXPECT_TRUE(s.any_code ? s.code > 0 : s.code == ZYN_RET_ERR_MEMORY) << s.code;
        const bool reported = text.find("Error occurred: ") != std::string::npos;
        EXPECT_TRUE(says == kAny || reported == (says == kReported)) << text;
      });
      if (!lasting || n == 1) attempt(act, 0, false, succeeds);
    }
  return needed;
}

// ---- graphs

// Binding, preparation and run of a random node of a type. What a failed
// preparation left does not run; the same graph prepares and runs afterwards.
struct AnyNode : Model {
  AnyNode(int type, uint32_t convolution, bool fixed) : Model(type + convolution, fixed) {
    method(convolution);
    layout = fixed ? ZYN_LAYOUT_PLANAR : ZYN_LAYOUT_BLOCKED;
    for (int k = 0; add(type) < 0 && k < 20;) k++;
    use_leftovers();
  }
};

void any_node(Scene& s, int type, uint32_t method, bool fixed, bool creation = false) {
  AnyNode model(type, method, fixed);
  Net& net = model.net;
  // A plan without room for its weights is handed out; the run refuses it. An
  // edge whose lists cannot grow is lost silently.
  s.any_code = creation || (method == 2 && type <= ZYN_OP_CONV_BN);
  if (creation) s.arm();
  if (!s.ok(net.connect())) return;
  if (fixed) net.q_list(8);
  if (!creation) s.arm();
  const bool bound = s.ok(net.bind()), prepared = bound && s.ok(net.prepare());
  if (prepared) s.ok(net.run());
  s.disarm();
  if (!bound || (creation && s.code)) return;
  if (s.code) {
    if (!prepared) {
      EXPECT_EQ(net.run(), 1);
    }
    model.refill();  // an activation in place may have run
    EXPECT_EQ(net.prepare() + net.run(), 0);
  }
  for (const auto& values : model.outputs()) s.keep(values.data(), values.size() * 8);
}

TEST(Scenarios, EveryOperatorType) {
  int forms = 0;  // that fixed point has
  const auto check = [&](int type, uint32_t method) {
    const std::string name = "type " + std::to_string(type) + " method " + std::to_string(method);
    for (bool fixed : {false, true}) {
      if (fixed && AnyNode(type, method, fixed).prepare()) continue;
      forms += fixed;
      fails_everywhere(name + (fixed ? " fixed point" : ""), kAny,
                       [=](Scene& s) { any_node(s, type, method, fixed); });
    }
  };
  for (uint32_t method : {0, 1, 2})
    for (int type : kConvTypes) check(type, method);
  for (int type : kOperatorTypes) check(type, 2);
  EXPECT_EQ(forms, 29);
  EXPECT_GE(fails_everywhere("from creation on", kAny,
                             [](Scene& s) { any_node(s, ZYN_OP_LINEAR, 2, false, true); }),
            520);
}

TEST(Scenarios, BuildingBlocks) {
  fails_everywhere("building blocks", kAny, [](Scene& s) {
    zyn_cg_handle* graph = s.own(zyn_create_computation_graph_handle(nullptr));
    for (int32_t id = 0; id < 17; id++) zyn_add_one_edge_into_computation_graph(graph, id, id + 1);
    EXPECT_EQ(zyn_computation_graph_topo_sort(graph), 0);
    s.arm();
    s.ok(zyn_bind_std_conv2d(8, 8, 0, 0, graph)) &&
        s.ok(zyn_bind_base_net_conv_bn(8, 8, 1, 1, graph)) &&
        s.ok(zyn_bind_base_net_conv_dw(8, 8, 1, 2, graph)) &&
        s.ok(zyn_bind_seperable_conv2d(8, 8, 1, 4, graph)) &&
        s.ok(zyn_bind_extra_net(2, 1, 6, graph)) &&
        s.ok(zyn_bind_invert_residual(8, 8, 1, 1, 2, 9, graph)) &&
        s.ok(zyn_bind_invert_residual_relu6(8, 8, 1, 1, 2, 13, graph));
  });
}

// ---- containers, files and images

TEST(Scenarios, Containers) {
  static const int32_t dims[2] = {5, 7};
  const struct {
    const char* name;
    int needed;
    Says says;
    void (*act)(Scene&);
  } rows[] = {
      {"block", 1, kSilent, [](Scene& s) { s.own(zyn_malloc(9)); }},
      {"array", 1, kSilent, [](Scene& s) { s.own(zyn_create_darray(&zyn_darray_str_type)); }},
      {"header", 1, kReported, [](Scene& s) { s.own(zyn_create_tensor_header(2, dims, 6)); }},
      {"tensor", 2, kReported, [](Scene& s) { s.own(zyn_create_tensor(2, dims, 6)); }},
      {"matrix", 2, kReported, [](Scene& s) { s.own(zyn_create_matrix(3, 4, 2, 6)); }},
      {"priors", 2, kReported, [](Scene& s) { s.own(zyn_generate_priors(240, 320, 0)); }},
      {"matches", 3, kSilent, [](Scene& s) { s.own(zyn_create_sort_match_info(2, 3)); }},
      {"tracker", 3, kReported, [](Scene& s) { s.own(zyn_create_sort_handle(&kTracker)); }}};
  for (const auto& row : rows)
    EXPECT_EQ(fails_everywhere(row.name, row.says, [&](Scene& s) { s.arm(), row.act(s); }),
              row.needed);
}

TEST(Scenarios, Files) {
  const std::string folder = temp_path("scenes"), picture = folder + "/a.bmp";
  const std::string model = folder + "/b.bmp";
  std::filesystem::create_directories(folder);
  std::ofstream(model, std::ios::binary)
      << "abcd\xe2\xfc\x71\x4c\x47\x27\xee\x93\x95\xf3\x24\xcd\x2e\x7f\x33\x1f";
  const auto add = [&](const std::string& name, const Act& act) {
    fails_everywhere(name, kAny, [&](Scene& s) {
#ifdef _WIN32
      s.any_code = true;  // without its converted name a file cannot be opened
#endif
      act(s);
    });
  };
  for (uint32_t format : {0u, 1u, 2u, 5u})
    add("written format " + std::to_string(format), [&](Scene& s) {
      zyn_image* image = s.image(18, 7, format);
      s.arm();
      s.ok(zyn_image_write_to_file_with_level(picture.c_str(), image));
    });
  for (int mode : {0, 1, 2})
    add("read mode " + std::to_string(mode), [&](Scene& s) {
      s.arm();
      s.keep(s.own(zyn_create_image_from_file(picture.c_str(), mode)));
    });
  add("model", [&](Scene& s) {
    char word[5] = {};
    s.arm();
    if (s.ok(zyn_cg_load_model(word, 1, model.c_str()))) s.keep(word, 5);
  });
  // A list that has entries keeps them, and gets none of the others.
  add("list", [&](Scene& s) {
    zyn_darray* list = s.own(zyn_create_darray(&zyn_darray_str_type));
    const auto names = [&] {
      return zyn_get_specfic_files_for_given_dir(list, folder.c_str(), "*.bmp");
    };
    for (int k = 0; k < 4; k++) EXPECT_EQ(names(), 0);
    s.arm();
    s.ok(names());
    s.disarm();
    EXPECT_EQ(list->count, s.code ? 8 : 10);
    for (int64_t i = 0; i < list->count; i++)
      EXPECT_EQ(static_cast<char**>(list->data)[i], i % 2 ? model : picture);
  });
  std::filesystem::remove_all(folder);
}

TEST(Scenarios, Images) {
  for (uint32_t format = 0; format < 15; format++) {
    const Act created = [=](Scene& s) { s.arm(), s.image(9, 7, format); };
    EXPECT_EQ(fails_everywhere("created", kAny, created), 2) << format;
    fails_everywhere("recreated", kAny, [=](Scene& s) {
      zyn_image* image = s.image(9, 7, format);
      s.arm();
      EXPECT_EQ(zyn_recreate_image(image, 12, 8), image);
      if (!image->data) s.code = ZYN_RET_ERR_MEMORY;
    });
  }
  // From one image to another, by a call.
  using Call = std::function<int32_t(zyn_image * to, zyn_image * from)>;
  const auto add = [](const char* name, uint32_t to, uint32_t from, const Sizes& size,
                      const Call& call) {
    fails_everywhere(name, kAny, [&](Scene& s) {
      zyn_image *source = s.image(size[0], size[1], from), *target = s.image(size[2], size[3], to);
      s.arm();
      if (s.ok(call(target, source))) s.keep(target);
    });
  };
  const uint32_t conversions[][3] = {{0, 2, 0},  {2, 1, 0},  {8, 5, 0},  {9, 0, 5},
                                     {13, 8, 0}, {14, 0, 8}, {21, 6, 0}, {22, 0, 6}};
  for (const auto& c : conversions)
    add("conversion", c[1], c[2], {9, 7, 9, 7},
        [&](zyn_image* t, zyn_image* f) { return zyn_image_color_space_convert(t, f, c[0]); });
  for (uint32_t format : {0u, 1u, 2u, 5u, 8u, 11u})
    for (const Sizes& size : {Sizes{40, 30, 33, 41}, Sizes{40, 30, 20, 15}, Sizes{9, 5, 31, 17}})
      for (int method : {0, 1})
        add("resizer", format, format, size,
            [=](zyn_image* t, zyn_image* f) { return zyn_image_resizer(t, f, method); });
  for (uint32_t format : {0u, 5u}) {
    add("patch", format, format, {20, 10, 8, 8}, [](zyn_image* t, zyn_image* f) {
      int32_t at[2] = {-3, 5};
      const int32_t size[2] = {8, 8};
      return zyn_image_cropped_patch(t, f, at, size);
    });
    fails_everywhere("border", kAny, [=](Scene& s) {
      zyn_image* from = s.image(8, 8, format);
      int32_t m[4] = {7, 7, 7, 7};
      s.arm();
      zyn_image* made = s.own(zyn_create_border_image(m, m + 1, m + 2, m + 3, from, 2));
      EXPECT_EQ(m[0] + m[1] + m[2] + m[3], made ? 8 : 28);
      s.keep(made);
    });
  }
}

// ---- detection and tracking

zyn_detection box(int k) { return {20.0f * k, 0, 20.0f * k + 10, 10, 1.0f - 0.001f * k}; }

TEST(Scenarios, Suppression) {
  fails_everywhere("suppression", kSilent, [](Scene& s) {
    zyn_detection boxes[90], out[90];
    for (int k = 0; k < 90; k++) boxes[k] = box(k * k % 70);
    s.arm();
    const int32_t count = zyn_ssd_nms(out, boxes, 90, 0.5f);
    if (count == 0) s.code = ZYN_RET_ERR_MEMORY;
    s.keep(out, sizeof(out[0]) * count);
  });
}

// A frame with 127 tracks that needs room for more, by both updates or by ids alone.
bool frame(Scene& s, zyn_sort_handle* sort, bool both) {
  const zyn_detection seen[4] = {box(5), box(200), box(201), box(202)};
  const int32_t known[4] = {-1, 7, -1, 9};
  int32_t ids[4];
  zyn_track_info* info = s.own(zyn_create_sort_predict(sort));
  if (!info) return false;
  s.keep(info);
  if (both) {
    std::vector<zyn_detection> tracks;
    for (const float* b = info->boxes; b < info->boxes + 4 * info->count; b += 4)
      tracks.push_back({b[0], b[1], b[2], b[3], 0});
    const zyn_sort_match_info* match =
        s.own(zyn_associate_detections_to_trackers(seen, 4, tracks.data(), info->count, 0.3f));
    if (!match || !s.ok(zyn_sort_update_detection(seen, ids, nullptr, 4, match, sort)))
      return false;
    s.keep(ids, sizeof(ids));
  }
  const char* payloads = "payloads of six bytes...";
  if (!s.ok(zyn_sort_update_detection_v2(seen, known, nullptr, 4, payloads, sort))) return false;
  info = s.own(zyn_sort_get_track_info(sort));
  s.keep(info);
  return info != nullptr;
}

TEST(Scenarios, Tracks) {
  for (bool both : {true, false})
    fails_everywhere(both ? "both updates" : "update by id", kAny, [=](Scene& s) {
      zyn_sort_handle* sort = s.own(zyn_create_sort_handle(&kTracker));
      for (int k = 0; k < 127; k++) {
        const zyn_detection first = box(k);
        const int32_t fresh = -1;
        zyn_sort_update_detection_v2(&first, &fresh, nullptr, 1, "first!", sort);
      }
      s.arm();
      if (frame(s, sort, both)) return;
      s.disarm();  // what a failure left goes on
      const int32_t code = s.code;
      EXPECT_TRUE(frame(s, sort, both));
      s.code = code;
    });
}

}  // namespace
