// The faces that a session knows, and the tracker behind them.
#pragma once

#include <stdint.h>

#include "base/zyn_memory.h"
#include "face/zyn_face_look.h"
#include "zyncore_face.h"

// What a face is known by: also one that was lost.
struct zyn_known_face {
  int32_t id;         // -1 until it is reported
  int32_t unseen;     // frames
  float seen_box[4];  // where it was last seen
  zyn_face_look look;
};

// A face as the session keeps it.
struct zyn_face_slot : zyn_known_face {
  uint32_t track;     // the tracker's id
  int32_t predicted;  // number in the tracker's prediction of this frame
  int32_t hits;       // detections so far
  int32_t state, age;
  float score;
  float box[4];
  // Landmarks of x, y each: as found, smoothed, their speeds in pixels a second.
  float *landmarks, *smoothed, *speeds;
  bool has_landmarks;
  double seen;  // when they are from
  // The box as a detection had it, by the landmarks' mean and spread: its centre and half its
  // sides in units of the spread.
  float link[4];
  float points[10];
  zyn_face_pose pose;
};

// What was found in a frame: a detection, or the box that a face's landmarks tell.
struct zyn_face_finding {
  zyn_detection box;
  int32_t slot;       // of the face that it continues or becomes, -1: none
  int32_t predicted;  // number of the track that it continues, -1: none
  bool has_landmarks;
  zyn_face_look look;  // without landmarks not known
};

class zyn_face_tracks {
 public:
  zyn_face_tracks() = default;
  zyn_face_tracks(const zyn_face_tracks&) = delete;
  zyn_face_tracks& operator=(const zyn_face_tracks&) = delete;
  ~zyn_face_tracks();

  // Room for max_faces faces, whose landmarks are so many values; no faces. 0 or 2.
  int32_t open(const zyn_face_options& options, int32_t values);
  // Forgets all faces. 0 or 2.
  int32_t clear();

  int32_t count() const { return count_; }
  zyn_face_slot& slot(int64_t i) const { return slots_[i]; }

  // Moves every face on by a frame: its box becomes the predicted one, its state
  // ZYN_FACE_PREDICTED; faces whose track is gone go. 0 or 2.
  int32_t predict();
  // Pairs findings with tracks of the prediction. 0 or 2.
  int32_t associate(zyn_face_finding* findings, int32_t count) const;
  // Corrects the tracks of paired findings; of the others those become faces that exceed the
  // score for it, as long as there is room. Faces take box and state. 0 or a code.
  int32_t update(zyn_face_finding* findings, int32_t count, int32_t state);
  // Who is who, by looks; nothing of it happens where nothing is remembered.
  // Changes pairs of findings and tracks that are near each other where others fit better, and
  // parts those that rather are a lost face.
  void reconsider(zyn_face_finding* findings, int32_t count) const;
  // Learns the looks of faces that no other one covers.
  void learn(const zyn_face_finding* findings, int32_t count);
  // Faces with enough detections get the id of a lost face that looks like them, else *next_id.
  void identify(int32_t* next_id);

  // A frame in which every finding is or becomes a track, none of them a face. 0 or a code.
  int32_t warm_up(zyn_face_finding* findings, int32_t count);
  // Drops faces that went unseen for too long, or whose middle left the frame unseen.
  void drop_lost(int32_t width, int32_t height);

 private:
  int32_t find(uint32_t track) const;
  int32_t add(uint32_t track);
  void remove(int32_t slot);
  int32_t correct(const zyn_face_finding* findings, int32_t count, int32_t room, int32_t* ids);
  void remember(const zyn_known_face& face);
  void forget();
  float gain(const zyn_face_finding* findings, int32_t count, int32_t finding, int32_t from,
             int32_t to) const;
  bool rather_lost(const zyn_face_finding& finding, float difference) const;
  bool recall();
  void give(zyn_face_finding* finding, uint32_t track, int32_t state);

  zyn_face_options options_ = {};
  int64_t values_ = 0;
  zyn_sort_handle* tracker_ = nullptr;
  zyn_track_info* predicted_ = nullptr;
  zyn_face_slot* slots_ = nullptr;
  float* landmarks_ = nullptr;
  int32_t count_ = 0;
  zyn_known_face* lost_ = nullptr;  // up to max_faces
  int32_t lost_count_ = 0;
};
