#pragma once

namespace zandor {

// A simulated board conversation that can send the console's 3D picture: both eyes and the bottom
// screen in ColumnOrder::Ft601ThreeD, the sound after them. The driver over it (ClassicBoard) then
// offers 3D, as a board with a 3D firmware does.
class ThreeDSender {
public:
    virtual ~ThreeDSender() = default;
    // Both eyes, or the flat picture, from the next frame on. Called on the reading thread, between
    // frames, or before the board opens.
    virtual void send3D(bool on) = 0;
};

} // namespace zandor
