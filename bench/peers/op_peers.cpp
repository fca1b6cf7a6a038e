// Operators other than convolutions, one by one: pooling, dense layers, sums, resizing, softmax,
// activations and the changes of channel order, float32, one thread (see kHelp).
#include <opencv2/dnn.hpp>
#include <opencv2/imgproc.hpp>

#include "libraries.h"
#include "subject.h"

using namespace peers;

static constexpr char kHelp[] =
    "usage: op_peers [--isa avx2|native] [--rounds n] [--again n] [--ms t] [--subject COMMAND]\n";

namespace {

using Values = std::shared_ptr<Buffer<float>>;
using Numbers = std::vector<int64_t>;
using Md = dnnl::memory::desc;

Values values(size_t count, uint32_t stream) {
  const auto v = std::make_shared<Buffer<float>>(count);
  for (size_t i = 0; i < count; i++) (*v)[i] = operand(static_cast<uint32_t>(i), stream);
  return v;
}

// Planar: channel after channel in and out. Free: the layout that suits the library,
// conversions not timed.
struct Peer {
  std::string name;
  bool planar;
  std::function<void()> run;
  std::function<void(float*)> output;  // in planar order
  Samples samples;
};

struct Case {
  std::string label, request;
  size_t outputs = 0;
  std::function<double(size_t)> expected;
  double scale = 1;  // of the errors that rounding may make
  std::vector<Peer> peers;
  Values kept;  // what a peer reads and nothing above holds
};

// -------------------------------------------------------------------- oneDNN

dnnl::memory filled(const Numbers& dims, tag planar, tag order, const Values& from) {
  const dnnl::memory user({dims, dt::f32, planar}, eng(), from->p);
  dnnl::memory own({dims, dt::f32, order}, eng());
  dnnl::reorder(user, own).execute(str(), const_cast<dnnl::memory&>(user), own);
  str().wait();
  return own;
}

// A primitive on its memories, DNNL_ARG_DST among them; out: the result's planar order.
void add_onednn(Case* c, const char* name, const dnnl::primitive& primitive,
                const std::unordered_map<int, dnnl::memory>& args, const Numbers& dims, tag out) {
  Peer p{name, name == std::string("onednn-planar"), nullptr, nullptr, {}};
  p.run = [=] {
    primitive.execute(str(), args);
    str().wait();
  };
  p.output = [=](float* to) {
    dnnl::memory user({dims, dt::f32, out}, eng(), to), own = args.at(DNNL_ARG_DST);
    dnnl::reorder(own, user).execute(str(), own, user);
    str().wait();
  };
  c->peers.push_back(p);
}

// make: tries one layout after another; what oneDNN refuses is left out.
void each_order(const std::function<void(tag, const char*)>& make) {
  const std::pair<tag, const char*> orders[] = {
      {tag::nchw, "onednn-planar"}, {tag::nChw8c, "onednn-blocked"}, {tag::nhwc, "onednn-nhwc"}};
  for (const auto& order : orders) {
    try {
      make(order.first, order.second);
    } catch (const dnnl::error&) {
    }
  }
}

// ------------------------------------------------------------------- XNNPACK

using Operator = std::shared_ptr<xnn_operator>;

Values to_pixels(const Values& planar, size_t channels) {
  const auto out = std::make_shared<Buffer<float>>(planar->n);
  const size_t pixels = planar->n / channels;
  for (size_t i = 0; i < planar->n; i++) (*out)[i % pixels * channels + i / pixels] = (*planar)[i];
  return out;
}

// setup gives the operator its buffers; channels: of pixels side by side, 1: planar.
template <class Create, class Setup>
void add_xnnpack(Case* c, bool planar, size_t channels, const Create& create, const Setup& setup) {
  xnn_operator_t op = nullptr;
  if (create(&op) != xnn_status_success) return;
  const Operator owned(op, xnn_delete_operator);
  const auto out = std::make_shared<Buffer<float>>(c->outputs);
  if (setup(op, out->p) != xnn_status_success) return;
  Peer p{planar ? "xnnpack-planar" : "xnnpack-nhwc", planar, nullptr, nullptr, {}};
  p.run = [=] { xnn_run_operator(owned.get(), nullptr); };
  p.output = [=](float* to) {
    const size_t pixels = out->n / channels;
    for (size_t i = 0; i < out->n; i++) to[i] = (*out)[i % pixels * channels + i / pixels];
  };
  c->peers.push_back(p);
}

// -------------------------------------------------------------------- OpenCV

void add_opencv(Case* c, const char* name, const std::function<void(cv::Mat&)>& run) {
  const auto out = std::make_shared<cv::Mat>();
  Peer p{name, true, [=] { run(*out); }, nullptr, {}};
  p.output = [=](float* to) { memcpy(to, out->ptr<float>(), out->total() * sizeof(float)); };
  c->peers.push_back(p);
}

void add_layer(Case* c, cv::dnn::LayerParams params, const char* type,
               const std::vector<int>& shape, const Values& in) {
  cv::dnn::Net net;
  params.name = "layer";
  try {
    net.addLayerToPrev("layer", type, params);
    net.setPreferableBackend(cv::dnn::DNN_BACKEND_OPENCV);
    net.setInput(cv::Mat(static_cast<int>(shape.size()), shape.data(), CV_32F, in->p));
    if (net.forward().total() != c->outputs) return;
  } catch (const cv::Exception&) {
    return;
  }
  add_opencv(c, "opencv-dnn", [net, in](cv::Mat& out) mutable { out = net.forward(); });
}

// --------------------------------------------------------------------- cases

struct Plane {
  int w, h, c;
  size_t count() const { return size_t(w) * h * c; }
  Numbers dims() const { return {1, c, h, w}; }
  std::vector<int> shape() const { return {1, c, h, w}; }
  std::string str() const {
    return " " + std::to_string(w) + " " + std::to_string(h) + " " + std::to_string(c);
  }
};

// Averages of all of a plane, and maxima.
void pooling_xnnpack(Case* c, const Plane& in, bool max, bool all, int k, int stride, int pad,
                     const Values& x) {
  const size_t n = in.c;
  const Values pixels = c->kept = to_pixels(x, n);
  if (max)
    add_xnnpack(
        c, false, n,
        [&](xnn_operator_t* op) {
          return xnn_create_max_pooling2d_nhwc_f32(pad, pad, pad, pad, k, k, stride, stride, 1, 1,
                                                   n, n, n, -INFINITY, INFINITY, 0, op);
        },
        [&](xnn_operator_t op, float* to) {
          return xnn_setup_max_pooling2d_nhwc_f32(op, 1, in.h, in.w, pixels->p, to, nullptr);
        });
  else if (all)
    add_xnnpack(
        c, true, 1,
        [&](xnn_operator_t* op) {
          return xnn_create_global_average_pooling_ncw_f32(n, -INFINITY, INFINITY, 0, op);
        },
        [&](xnn_operator_t op, float* to) {
          return xnn_setup_global_average_pooling_ncw_f32(op, 1, size_t(in.w) * in.h, x->p, to,
                                                          nullptr);
        });
}

Case pooling(const Plane& in, bool max, int k, int stride, int pad) {
  const Plane out = {(in.w + 2 * pad - k) / stride + 1, (in.h + 2 * pad - k) / stride + 1, in.c};
  const bool all = k == in.w && k == in.h && !max;
  Case c;
  c.label = all ? "global average" + in.str()
                : (max ? "maximum " : "average ") + std::to_string(k) + "x" + std::to_string(k) +
                      " s" + std::to_string(stride) + " p" + std::to_string(pad) + in.str();
  c.request = all ? "op mean" + in.str()
                  : (max ? "op max" : "op average") + in.str() + " " + std::to_string(k) + " " +
                        std::to_string(stride) + " " + std::to_string(pad);
  c.outputs = out.count();
  c.scale = 8;
  const Values x = values(in.count(), kInput);
  c.expected = [=](size_t i) {
    const int ox = int(i % out.w) * stride - pad, oy = int(i / out.w % out.h) * stride - pad;
    const float* plane = x->p + i / out.w / out.h * in.w * in.h;
    double most = -INFINITY, sum = 0;
    int count = 0;
    for (int py = std::max(oy, 0); py < std::min(oy + k, in.h); py++)
      for (int px = std::max(ox, 0); px < std::min(ox + k, in.w); px++, count++) {
        most = std::max(most, double(plane[py * in.w + px]));
        sum += plane[py * in.w + px];
      }
    return max ? most : sum / count;
  };
  each_order([&](tag order, const char* name) {
    const dnnl::pooling_forward::desc d(
        dnnl::prop_kind::forward_inference,
        max ? dnnl::algorithm::pooling_max : dnnl::algorithm::pooling_avg_exclude_padding,
        {in.dims(), dt::f32, order}, {out.dims(), dt::f32, order}, {stride, stride}, {k, k},
        {pad, pad}, {pad, pad});
    add_onednn(&c, name, dnnl::pooling_forward({d, eng()}),
               {{DNNL_ARG_SRC, filled(in.dims(), tag::nchw, order, x)},
                {DNNL_ARG_DST, dnnl::memory({out.dims(), dt::f32, order}, eng())}},
               out.dims(), tag::nchw);
  });
  pooling_xnnpack(&c, in, max, all, k, stride, pad, x);
  cv::dnn::LayerParams p;
  p.set("pool", max ? "MAX" : "AVE");
  p.set("kernel_size", k);
  p.set("stride", stride);
  p.set("pad", pad);
  p.set("ceil_mode", false);
  add_layer(&c, p, "Pooling", in.shape(), x);
  return c;
}

Case dense(int in, int out) {
  Case c;
  c.label = "dense " + std::to_string(in) + ">" + std::to_string(out);
  c.request = "op dense " + std::to_string(in) + " " + std::to_string(out);
  c.outputs = size_t(out);
  c.scale = 16 * std::sqrt(double(in));
  const Values x = values(in, kInput), w = values(size_t(in) * out, kWeights),
               b = values(out, kBias);
  c.expected = [=](size_t i) {
    double sum = (*b)[i];
    for (int k = 0; k < in; k++) sum += double((*x)[k]) * (*w)[i * in + k];
    return sum;
  };
  const dnnl::inner_product_forward::desc d(
      dnnl::prop_kind::forward_inference, {{1, in}, dt::f32, tag::nc},
      {{out, in}, dt::f32, tag::any}, {{out}, dt::f32, tag::x}, {{1, out}, dt::f32, tag::nc});
  const dnnl::inner_product_forward::primitive_desc pd(d, eng());
  dnnl::memory plain({{out, in}, dt::f32, tag::oi}, eng(), w->p), packed(pd.weights_desc(), eng());
  dnnl::reorder(plain, packed).execute(str(), plain, packed);
  str().wait();
  add_onednn(&c, "onednn-planar", dnnl::inner_product_forward(pd),
             {{DNNL_ARG_SRC, filled({1, in}, tag::nc, tag::nc, x)},
              {DNNL_ARG_WEIGHTS, packed},
              {DNNL_ARG_BIAS, filled({out}, tag::x, tag::x, b)},
              {DNNL_ARG_DST, dnnl::memory({{1, out}, dt::f32, tag::nc}, eng())}},
             {1, out}, tag::nc);
  add_xnnpack(
      &c, true, 1,
      [&](xnn_operator_t* op) {
        return xnn_create_fully_connected_nc_f32(in, out, in, out, w->p, b->p, -INFINITY, INFINITY,
                                                 0, op);
      },
      [&](xnn_operator_t op, float* to) {
        return xnn_setup_fully_connected_nc_f32(op, 1, x->p, to, nullptr);
      });
  cv::dnn::LayerParams p;
  p.set("num_output", out);
  p.blobs = {cv::Mat(out, in, CV_32F, w->p).clone(), cv::Mat(1, out, CV_32F, b->p).clone()};
  add_layer(&c, p, "InnerProduct", {1, in}, x);
  return c;
}

Case sum(const Plane& in) {
  Case c;
  c.label = "sum" + in.str();
  c.request = "op add" + in.str();
  c.outputs = in.count();
  c.scale = 8;
  const Values a = values(in.count(), kInput), b = values(in.count(), kMatB);
  c.expected = [=](size_t i) { return double((*a)[i]) + (*b)[i]; };
  const Md md(in.dims(), dt::f32, tag::nchw);
  add_onednn(&c, "onednn-planar", dnnl::binary({{dnnl::algorithm::binary_add, md, md, md}, eng()}),
             {{DNNL_ARG_SRC_0, filled(in.dims(), tag::nchw, tag::nchw, a)},
              {DNNL_ARG_SRC_1, filled(in.dims(), tag::nchw, tag::nchw, b)},
              {DNNL_ARG_DST, dnnl::memory(md, eng())}},
             in.dims(), tag::nchw);
  const size_t count = in.count();
  add_xnnpack(
      &c, true, 1,
      [&](xnn_operator_t* op) { return xnn_create_add_nd_f32(-INFINITY, INFINITY, 0, op); },
      [&](xnn_operator_t op, float* to) {
        return xnn_setup_add_nd_f32(op, 1, &count, 1, &count, a->p, b->p, to, nullptr);
      });
  add_opencv(&c, "opencv", [=](cv::Mat& out) {
    cv::add(cv::Mat(1, int(count), CV_32F, a->p), cv::Mat(1, int(count), CV_32F, b->p), out);
  });
  return c;
}

// Twice as wide and high.
Case resizing(const Plane& in, bool linear) {
  const Plane out = {2 * in.w, 2 * in.h, in.c};
  Case c;
  c.label = (linear ? "bilinear x2" : "nearest x2") + in.str();
  c.request = (linear ? "op bilinear" : "op nearest") + in.str();
  c.outputs = out.count();
  c.scale = 8;
  const Values x = values(in.count(), kInput);
  c.expected = [=](size_t i) {
    const float* plane = x->p + i / out.w / out.h * in.w * in.h;
    const int ox = int(i % out.w), oy = int(i / out.w % out.h);
    if (!linear) return double(plane[oy / 2 * in.w + ox / 2]);
    const auto along = [](int o, int extent, int* low, int* high) {
      const double at = std::min(std::max((o + 0.5) / 2 - 0.5, 0.0), extent - 1.0);
      *low = int(at);
      *high = std::min(*low + 1, extent - 1);
      return at - *low;
    };
    int x0, x1, y0, y1;
    const double fx = along(ox, in.w, &x0, &x1), fy = along(oy, in.h, &y0, &y1);
    return (1 - fy) * ((1 - fx) * plane[y0 * in.w + x0] + fx * plane[y0 * in.w + x1]) +
           fy * ((1 - fx) * plane[y1 * in.w + x0] + fx * plane[y1 * in.w + x1]);
  };
  each_order([&](tag order, const char* name) {
    const dnnl::resampling_forward::desc d(
        dnnl::prop_kind::forward_inference,
        linear ? dnnl::algorithm::resampling_linear : dnnl::algorithm::resampling_nearest,
        {in.dims(), dt::f32, order}, {out.dims(), dt::f32, order});
    add_onednn(&c, name, dnnl::resampling_forward({d, eng()}),
               {{DNNL_ARG_SRC, filled(in.dims(), tag::nchw, order, x)},
                {DNNL_ARG_DST, dnnl::memory({out.dims(), dt::f32, order}, eng())}},
               out.dims(), tag::nchw);
  });
  if (linear)
    add_xnnpack(
        &c, true, 1,
        [&](xnn_operator_t* op) {
          return xnn_create_resize_bilinear2d_nchw_f32(in.c, in.c, in.c, 0, op);
        },
        [&](xnn_operator_t op, float* to) {
          return xnn_setup_resize_bilinear2d_nchw_f32(op, 1, in.h, in.w, out.h, out.w, x->p, to,
                                                      nullptr);
        });
  const auto result = std::make_shared<Buffer<float>>(out.count());
  Peer p{"opencv", true, nullptr, nullptr, {}};
  p.run = [=] {
    for (int k = 0; k < in.c; k++)
      cv::resize(cv::Mat(in.h, in.w, CV_32F, x->p + size_t(k) * in.w * in.h),
                 cv::Mat(out.h, out.w, CV_32F, result->p + size_t(k) * out.w * out.h),
                 cv::Size(out.w, out.h), 0, 0, linear ? cv::INTER_LINEAR : cv::INTER_NEAREST);
  };
  p.output = [=](float* to) { memcpy(to, result->p, result->n * sizeof(float)); };
  c.peers.push_back(p);
  return c;
}

// rows of n elements each.
Case softmax(int n, int rows) {
  Case c;
  c.label = "softmax " + std::to_string(n) + " x " + std::to_string(rows);
  c.request = "op softmax " + std::to_string(n) + " " + std::to_string(rows);
  c.outputs = size_t(n) * rows;
  const Values x = values(c.outputs, kInput);
  c.expected = [=](size_t i) {
    double all = 0;
    for (int k = 0; k < n; k++) all += std::exp(double((*x)[i / n * n + k]));
    return std::exp(double((*x)[i])) / all;
  };
  const Md md({rows, n}, dt::f32, tag::nc);
  add_onednn(&c, "onednn-planar",
             dnnl::softmax_forward({{dnnl::prop_kind::forward_inference, md, 1}, eng()}),
             {{DNNL_ARG_SRC, filled({rows, n}, tag::nc, tag::nc, x)},
              {DNNL_ARG_DST, dnnl::memory(md, eng())}},
             {rows, n}, tag::nc);
  add_xnnpack(
      &c, true, 1, [&](xnn_operator_t* op) { return xnn_create_softmax_nc_f32(n, n, n, 0, op); },
      [&](xnn_operator_t op, float* to) {
        return xnn_setup_softmax_nc_f32(op, rows, x->p, to, nullptr);
      });
  cv::dnn::LayerParams p;
  p.set("axis", 1);
  add_layer(&c, p, "Softmax", {rows, n}, x);
  return c;
}

Case activation(const std::string& name, const Plane& in) {
  Case c;
  c.label = name + in.str();
  c.request = "op " + name + in.str();
  c.outputs = in.count();
  c.scale = 4;
  const Values x = values(in.count(), kInput), slopes = values(in.c, kWeights);
  const size_t pixels = size_t(in.w) * in.h, n = in.c, count = in.count();
  c.expected = [=](size_t i) {
    const double v = (*x)[i];
    return name == "relu"      ? std::max(v, 0.0)
           : name == "sigmoid" ? 1 / (1 + std::exp(-v))
           : name == "prelu"   ? (v < 0 ? v * (*slopes)[i / pixels] : v)
                               : v * std::min(std::max(v + 3, 0.0), 6.0) / 6;
  };
  const Md md(in.dims(), dt::f32, tag::nchw);
  const Numbers slope_dims = {1, in.c, 1, 1};
  std::unordered_map<int, dnnl::memory> args = {
      {DNNL_ARG_SRC, filled(in.dims(), tag::nchw, tag::nchw, x)},
      {DNNL_ARG_DST, dnnl::memory(md, eng())}};
  const auto forward = dnnl::prop_kind::forward_inference;
  try {
    if (name == "prelu") {
      args[DNNL_ARG_WEIGHTS] = filled(slope_dims, tag::nchw, tag::nchw, slopes);
      add_onednn(&c, "onednn-planar",
                 dnnl::prelu_forward({{forward, md, Md(slope_dims, dt::f32, tag::nchw)}, eng()}),
                 args, in.dims(), tag::nchw);
    } else {
      const dnnl::algorithm kind = name == "relu"      ? dnnl::algorithm::eltwise_relu
                                   : name == "sigmoid" ? dnnl::algorithm::eltwise_logistic
                                                       : dnnl::algorithm::eltwise_hardswish;
      add_onednn(&c, "onednn-planar",
                 dnnl::eltwise_forward({{forward, kind, md, 0.0f, 0.0f}, eng()}), args, in.dims(),
                 tag::nchw);
    }
  } catch (const dnnl::error&) {
  }
  const auto flat = [&](auto create, auto setup) {
    add_xnnpack(&c, true, 1, create,
                [&](xnn_operator_t op, float* to) { return setup(op, 1, x->p, to, nullptr); });
  };
  if (name == "relu")
    flat(
        [&](xnn_operator_t* op) {
          return xnn_create_clamp_nc_f32(count, count, count, 0, INFINITY, 0, op);
        },
        xnn_setup_clamp_nc_f32);
  if (name == "sigmoid")
    flat([&](xnn_operator_t* op) { return xnn_create_sigmoid_nc_f32(count, count, count, 0, op); },
         xnn_setup_sigmoid_nc_f32);
  if (name == "hardswish")
    flat(
        [&](xnn_operator_t* op) { return xnn_create_hardswish_nc_f32(count, count, count, 0, op); },
        xnn_setup_hardswish_nc_f32);
  const Values side_by_side = to_pixels(x, n);
  if (name == "prelu")
    add_xnnpack(
        &c, false, n,
        [&](xnn_operator_t* op) { return xnn_create_prelu_nc_f32(n, n, n, slopes->p, 0, op); },
        [&](xnn_operator_t op, float* to) {
          return xnn_setup_prelu_nc_f32(op, pixels, side_by_side->p, to, nullptr);
        });
  cv::dnn::LayerParams p;
  if (name == "prelu") p.blobs = {cv::Mat(1, in.c, CV_32F, slopes->p).clone()};
  add_layer(&c, p,
            name == "relu"      ? "ReLU"
            : name == "sigmoid" ? "Sigmoid"
            : name == "prelu"   ? "PReLU"
                                : "HardSwish",
            in.shape(), x);
  c.kept = side_by_side;
  return c;
}

// Between planes and blocks of eight channels.
Case reordering(const Plane& in, bool block) {
  Case c;
  c.label = (block ? "planes to blocks" : "blocks to planes") + in.str();
  c.request = (block ? "op block" : "op planes") + in.str();
  c.outputs = in.count();
  const Values x = values(in.count(), kInput);
  c.expected = [=](size_t i) { return double((*x)[i]); };
  const tag from = block ? tag::nchw : tag::nChw8c, to = block ? tag::nChw8c : tag::nchw;
  dnnl::memory src = filled(in.dims(), tag::nchw, from, x), dst({in.dims(), dt::f32, to}, eng());
  add_onednn(&c, "onednn-planar", dnnl::reorder(src, dst),
             {{DNNL_ARG_SRC, src}, {DNNL_ARG_DST, dst}}, in.dims(), tag::nchw);
  return c;
}

std::vector<std::function<Case()>> all_cases() {
  std::vector<std::function<Case()>> all = {[] {
                                              return pooling({112, 112, 64}, true, 2, 2, 0);
                                            },
                                            [] {
                                              return pooling({112, 112, 64}, true, 3, 2, 1);
                                            },
                                            [] {
                                              return pooling({55, 55, 128}, true, 3, 2, 0);
                                            },
                                            [] {
                                              return pooling({56, 56, 64}, false, 2, 2, 0);
                                            },
                                            [] {
                                              return pooling({7, 7, 1280}, false, 7, 1, 0);
                                            },
                                            [] { return dense(512, 1000); },
                                            [] { return dense(1280, 1000); },
                                            [] { return dense(9216, 4096); },
                                            [] {
                                              return sum({56, 56, 64});
                                            },
                                            [] {
                                              return sum({14, 14, 96});
                                            },
                                            [] {
                                              return resizing({40, 40, 64}, false);
                                            },
                                            [] {
                                              return resizing({40, 40, 64}, true);
                                            },
                                            [] { return softmax(2, 4420); },
                                            [] { return softmax(1000, 1); },
                                            [] {
                                              return reordering({56, 56, 64}, true);
                                            },
                                            [] {
                                              return reordering({56, 56, 64}, false);
                                            }};
  for (const char* name : {"relu", "sigmoid", "hardswish", "prelu"})
    all.push_back([=] { return activation(name, {56, 56, 64}); });
  return all;
}

bool right(const Case& c, const std::vector<size_t>& at, const std::vector<double>& got) {
  for (size_t i = 0; i < at.size(); i++)
    if (!close_enough(got[i], c.expected(at[i]), c.scale)) return false;
  return true;
}

void print(const std::string& name, bool planar, double min, double median, bool ok) {
  printf("    %-16s %-6s min %9.2f us  median %9.2f us%s\n", name.c_str(),
         planar ? "planar" : "free", min / 1e3, median / 1e3, ok ? "" : "  WRONG RESULT");
}

// One case; returns how many results are wrong.
int measure(Case& c, Subject& subject, int rounds, int again, double ms) {
  const std::vector<size_t> at = probe_points(1, c.outputs);
  const bool ours = subject.present() && subject.setup(c.request);
  const bool ours_right = !ours || right(c, at, subject.probe(at));
  std::vector<bool> ok;
  Buffer<float> got(c.outputs);
  for (Peer& p : c.peers) {
    p.run();
    p.output(got.p);
    std::vector<double> found;
    for (size_t i : at) found.push_back(got[i]);
    ok.push_back(right(c, at, found));
  }
  double min = 0;
  Samples medians;
  // What is behind only because of the machine's other work is not after more rounds.
  const auto is_behind = [&] {
    return std::any_of(c.peers.begin(), c.peers.end(),
                       [&](const Peer& p) { return p.planar && p.samples.min() < min; });
  };
  for (int r = 0; r < rounds || (r < rounds * (again + 1) && is_behind()); r++) {
    for (Peer& p : c.peers) sample(p.samples, ms, p.run);
    if (ours && subject.setup(c.request)) subject.time(ms, min, medians.ns);
  }
  printf("%s\n", c.label.c_str());
  for (size_t i = 0; i < c.peers.size(); i++)
    print(c.peers[i].name, c.peers[i].planar, c.peers[i].samples.min(), c.peers[i].samples.median(),
          ok[i]);
  if (ours) print("subject", true, min, medians.median(), ours_right);
  fflush(stdout);
  return static_cast<int>(std::count(ok.begin(), ok.end(), false)) + !ours_right;
}

}  // namespace

int main(int argc, char** argv) {
  const cli::Line line(argc, argv, kHelp,
                       with_common({{"rounds", "7"}, {"again", "0"}, {"ms", "3"}}), 0);
  const Isa isa = select_isa(line, argv);
  const int rounds = static_cast<int>(line.number("rounds", 1));
  const int again = static_cast<int>(line.number("again", 0));
  const double ms = line.number("ms", 0.001);
  Subject subject(line["subject"]);
  if (!start_libraries(isa)) return 1;
  print_libraries(isa);
  printf("\n");
  int wrong = 0;
  for (const auto& make : all_cases()) {
    Case c = make();
    wrong += measure(c, subject, rounds, again, ms);
  }
  if (wrong) printf("%d WRONG RESULTS\n", wrong);
  return wrong || subject.failed() ? 1 : 0;
}
