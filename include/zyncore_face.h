/* zyncore_face: faces in moving pictures, found, followed, landmarked, smoothed and posed.
 *
 *   zyn_face_options options = ZYN_FACE_DEFAULTS;
 *   options.detector = "faces.zyn";
 *   options.landmarks = "landmarks.zyn";
 *   zyn_face_session* session = zyn_face_create(&options);
 *   if (!session) { puts(zyn_error_detail()); return 1; }
 *   for every frame of the camera:
 *     zyn_face_frame frame = {ZYN_FRAME_NV12, 640, 480, {luma, chroma, NULL}, {640, 640, 0}};
 *     const zyn_face* faces;
 *     int32_t count;
 *     if (zyn_face_process(session, &frame, seconds, &faces, &count)) puts(zyn_error_detail());
 *     for (int32_t i = 0; i < count; i++) draw(faces[i].box, faces[i].smoothed, ...);
 *   zyn_face_release(&session);
 *
 * The conventions of zyncore.h hold here too: codes, ownership, UTF-8 file names; a session
 * belongs to one thread at a time, several sessions may run in several threads. Nothing is
 * printed: failures are explained by zyn_error_detail. docs/faces.md tells which metadata a
 * network needs.
 *
 * Positions are in pixels of the frame: x to the right, y down, (0, 0) the upper left corner of
 * the upper left pixel, whose centre is (0.5, 0.5). Left and right are those of the picture.
 *
 * Poses: a camera looks along +z, x to its right, y down, its axis through the frame's centre
 * (width / 2, height / 2), the focal length (in pixels) the same for x and y, no distortion:
 *   u = focal * X / Z + width / 2,    v = focal * Y / Z + height / 2.
 * The model of the head is in millimetres in the same axes: x to the picture's right, y down, z
 * away from the camera, the origin midway between the centres of the eyes (each the mean of its
 * six points). camera point = rotation * model point + translation; a face that looks straight
 * along the camera's axis has the identity. As angles
 *   rotation = Rz(roll) * Ry(-yaw) * Rx(-pitch)
 * with the usual right-handed rotations about these axes, in degrees:
 *   yaw   positive: the face turns to the picture's right, -90 to 90
 *   pitch positive: the face looks up
 *   roll  positive: the head's top leans to the picture's right (clockwise). */
#ifndef ZYNCORE_FACE_H
#define ZYNCORE_FACE_H

#include "zyncore_net.h"

#ifdef __cplusplus
extern "C" {
#endif

/* ------------------------------------------------------------------------ */
/* Frames                                                                     */
/* ------------------------------------------------------------------------ */

/* Pixel formats, as in images where there is one. YUV is BT.601 of limited range, converted by
 * the formulas of ZYN_COLOR_I420_TO_BGR (docs/images.md) in every one of these formats. */
enum {
  ZYN_FRAME_BGR = ZYN_IMAGE_BGR,   /* one plane: blue, green, red */
  ZYN_FRAME_RGB = ZYN_IMAGE_RGB,   /* one plane: red, green, blue */
  ZYN_FRAME_GREY = ZYN_IMAGE_GRAY, /* one plane: one byte a pixel */
  ZYN_FRAME_I420 = ZYN_IMAGE_I420, /* three planes: Y, then U and V of half width and height */
  ZYN_FRAME_NV12 = ZYN_IMAGE_NV12, /* two planes: Y, then pairs (U, V) for 2 x 2 pixels */
  ZYN_FRAME_NV21 = ZYN_IMAGE_NV21, /* two planes: Y, then pairs (V, U) */
  ZYN_FRAME_YUYV = 32              /* one plane: Y, U, Y, V for two pixels side by side */
};

/* A picture in memory of yours, for example a camera's buffer: it is only read, only during the
 * call that it is given to, and of every row only the pixels. */
typedef struct zyn_face_frame {
  uint32_t format;       /* ZYN_FRAME_* */
  int32_t width, height; /* 1 to 16384; even in 4:2:0, an even width in YUYV */
  const void* planes[3]; /* as many as the format has; the others are not looked at */
  int32_t strides[3];    /* bytes from one row of a plane to the next, at least those of a row */
} zyn_face_frame;

/* ------------------------------------------------------------------------ */
/* Sessions                                                                   */
/* ------------------------------------------------------------------------ */

typedef struct zyn_face_session zyn_face_session;

/* How a session works. Set everything by ZYN_FACE_DEFAULTS, then change what should differ.
 * Of each network at most one source is given; the detector is needed, without a landmark
 * network faces have boxes only. */
typedef struct zyn_face_options {
  const char* detector;      /* a network file (UTF-8), or */
  const void* detector_data; /* such a file in memory, which is copied where needed, or */
  int64_t detector_bytes;    /* (its bytes) */
  zyn_net* detector_net;     /* a loaded network: it stays yours, outlives the session, and its
                                method and arithmetic are its own */
  const char* landmarks;     /* the same for the landmark network */
  const void* landmarks_data;
  int64_t landmarks_bytes;
  zyn_net* landmarks_net;
  int32_t method;      /* for networks loaded here: as in zyn_net_options */
  int32_t fixed_point; /* for networks loaded here: 1: 16-bit fixed point */

  int32_t detect_every;    /* 1 or more: the detector runs on every n-th frame; on the others faces
                              are followed by their landmarks (without a landmark network: their
                              tracks are predicted) */
  int32_t max_faces;       /* 1 to 1000: faces followed at once; of a frame's detections the best
                              2 * max_faces are looked at */
  float score_threshold;   /* 0 to 1: a detection above it may become a face */
  float keep_threshold;    /* 0 to score_threshold: a detection above it continues a face */
  float overlap_threshold; /* 0 to 1: of detections that overlap more the best one stays */
  int32_t resize;          /* how a frame gets the shape of the detector's input: 0: as the network
                              says (border where it does not), 1: stretched, 2: bordered in black,
                              all of it in the middle, 3: cut out, as much of its middle as fits */
  int32_t max_age;         /* 0 or more: a face is dropped when it went unseen for more frames than
                              this, or its middle left the frame unseen */
  int32_t min_hits;        /* 1 or more: detections before a face is reported */
  float track_overlap;     /* 0 to below 1: what a detection and a predicted box, both enlarged five
                              times, overlap at least if they are the same face */

  /* One-euro filter of the landmarks. The speed that raises the cut-off is counted in sizes of
   * the face (the larger side of its box) a second, so that settings hold for every size. */
  float smooth_cutoff;     /* hertz, at rest; 0: smoothed landmarks are the landmarks */
  float smooth_beta;       /* hertz for one size of the face a second, 0 or more */
  float smooth_derivative; /* hertz, cut-off of the speed, above 0 */

  float focal_length; /* pixels; 0: the frame's width (a horizontal view of 53 degrees) */

  /* With a landmark network */
  int32_t remember;  /* 0 or more: frames for which a face that was dropped is remembered by its
                        look. Found again where it may have come to, it has its id again; faces that
                        cross are told apart by their looks. 0: neither */
  float second_look; /* 0 to 1: the weight of the landmark network's own judgement of a detection,
                        if it has one (docs/faces.md): the score's odds are the detector's to the
                        power of 1 - second_look times the landmark network's to that of
                        second_look, and the box is the landmark network's. 0: no second look */
  int32_t reserved;  /* 0 */
} zyn_face_options;
#define ZYN_FACE_DEFAULTS                                                                        \
  {                                                                                              \
    0, 0, 0, 0, 0, 0, 0, 0, ZYN_NET_AUTOMATIC, 0, 1, 32, 0.7f, 0.5f, 0.3f, 0, 10, 1, 0.5f, 0.4f, \
        8.0f, 0.5f, 0.0f, 100, 0.5f, 0                                                           \
  }

/* Where a face's values come from in this frame. */
enum {
  ZYN_FACE_PREDICTED = 0, /* not seen: the box is where it should be by now, landmarks and pose
                             are those of when it was last seen */
  ZYN_FACE_FOLLOWED = 1,  /* seen by its landmarks, no detection in this frame */
  ZYN_FACE_DETECTED = 2
};

/* Where a head is and how it is turned: see above. */
typedef struct zyn_face_pose {
  int32_t valid;          /* 1; 0: not known, and everything else 0 */
  float rotation[9];      /* 3 x 3, row by row */
  float translation[3];   /* millimetres: where the midpoint between the eyes lies */
  float yaw, pitch, roll; /* degrees */
  float error; /* root mean square distance between landmarks and projected model, in pixels */
} zyn_face_pose;

/* One face in one frame. */
typedef struct zyn_face {
  int32_t id;             /* counts up from 0 in the order in which faces were first reported */
  int32_t state;          /* ZYN_FACE_PREDICTED, ZYN_FACE_FOLLOWED or ZYN_FACE_DETECTED */
  int32_t age;            /* frames since its first detection, or since it was found again */
  int32_t unseen;         /* frames since it was last seen, 0 if it is */
  float score;            /* of its latest detection, 0 to 1 */
  float box[4];           /* x1, y1, x2, y2; may reach over the frame's edge */
  int32_t landmark_count; /* 0 without a landmark network */
  const float* landmarks; /* x, y of every point, as the network gave them */
  const float* smoothed;  /* the same, smoothed over time */
  float points[10];       /* smoothed: left eye, right eye, nose, left and right corner of the
                             mouth, x and y of each; for zyn_face_align. 0 without landmarks */
  zyn_face_pose pose;     /* of the smoothed landmarks */
} zyn_face;

/* Loads and checks the networks and runs each once, so that everything is ready and no frame
 * allocates memory (a caller's network that needs a larger block later apart). *options and what
 * it points at are copied or read now, networks of yours apart. Null: zyn_error_detail tells why:
 * a setting outside its range, a file that cannot be loaded, metadata that are missing, are wrong
 * or do not fit the network's outputs, no memory. Release it with zyn_face_release. */
ZYN_API zyn_face_session* zyn_face_create(const zyn_face_options* options);

/* Frees the session with the networks that it loaded, and sets *session to null. 1: session or
 * *session is null. */
ZYN_API int32_t zyn_face_release(zyn_face_session** session);

/* One frame. time is in seconds, of any clock; it should rise from frame to frame. Where it does
 * not, or by more than a second, smoothing begins anew and the detector runs; faces keep their
 * ids. Frames may change their format at any time. Where they change their size nothing is known
 * of the places of the faces: all are dropped, ids go on, and the detector runs.
 * *faces points at *count records in the session, valid until its next call: faces seen in this
 * frame and those predicted, in the order of their ids; either pointer may be null.
 * 0; 1: null session or frame, a frame that is not as its record is described, or a time that is
 * not finite: nothing has changed, and nothing is handed out; else the code of what failed (a
 * network's run, memory): the frame counts, and nothing is handed out. */
ZYN_API int32_t zyn_face_process(zyn_face_session* session, const zyn_face_frame* frame,
                                 double time, const zyn_face** faces, int32_t* count);

/* Drops all faces; the next frame is as the first one, only that ids go on. 1: null session. */
ZYN_API int32_t zyn_face_reset(zyn_face_session* session);

/* Milliseconds that the stages of the latest frame took; 0 what did not run. */
typedef struct zyn_face_times {
  double detector_input; /* from the frame to the detector's input */
  double detector;       /* its run */
  double boxes;          /* scores, decoding, suppression, second look */
  double tracking;       /* prediction, association, update */
  double landmark_input; /* crops of all faces */
  double landmarks;      /* runs for all faces */
  double pose;           /* smoothing and poses of all faces */
  double total;          /* the whole call */
} zyn_face_times;

/* Copies them to *times. 1: null argument. */
ZYN_API int32_t zyn_face_get_times(const zyn_face_session* session, zyn_face_times* times);

/* ------------------------------------------------------------------------ */
/* Parts of it by themselves                                                  */
/* ------------------------------------------------------------------------ */

/* The model of a head: 68 points in the usual order, x, y, z of each in millimetres, generic and
 * symmetric; axes and origin as above. Never null, read-only. */
ZYN_API const float* zyn_face_model(void);

/* The pose of a head from its 68 landmarks (x, y of each) in a frame of width x height pixels;
 * focal_length 0: the width. 0: *pose is valid; 1: null argument, a size below 1, a focal length
 * that is negative or not finite; 32: points that no head explains (not finite, all in one place):
 * pose->valid is 0. */
ZYN_API int32_t zyn_face_solve_pose(const float* landmarks, int32_t width, int32_t height,
                                    float focal_length, zyn_face_pose* pose);

/* Turns, scales and moves the face with these five points (x, y of each, in the order of
 * zyn_face.points) to the standard crop of size x size pixels, in which they lie, as nearly in
 * the sense of least squares as a similarity transform can bring them, at
 *   (38.2946, 51.6963) (73.5318, 51.5014) (56.0252, 71.7366) (41.5493, 92.3655) (70.7299, 92.2041)
 * times size / 112. out is an image of size x size pixels of format 0, 1 or 2; what lies outside
 * the frame is black. 0; 1: null argument, a frame that is not as its record is described, an
 * image of another size or kind, size outside 1 to 4096, points that are not finite or all in
 * one place: nothing is written. */
ZYN_API int32_t zyn_face_align(zyn_image* out, const zyn_face_frame* frame, const float* points,
                               int32_t size);

#ifdef __cplusplus
}
#endif

#endif /* ZYNCORE_FACE_H */
