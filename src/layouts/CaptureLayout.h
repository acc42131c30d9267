#pragma once

#include "BlendImage.h"
#include "CanvasBudget.h"
#include "LayoutPlugin.h"
#include "base/Worker.h"
#include "capture/ColumnOrder.h"
#include "capture/FramePool.h"
#include "capture/Observable.h"

#include <QString>

#include <array>
#include <memory>
#include <mutex>
#include <optional>
#include <utility>
#include <vector>

namespace zandor {

class CaptureDevice;
class CaptureScreen;

// One live picture made from the console's screens. A plugin layout composites background, images
// and the screens onto a canvas of the plugin's size and publishes a copy per set of screen frames
// cut from the same board frame (of the same number): the top and bottom screens, and the right eye
// of the 3D picture when the plugin places it; a screen layout republishes one screen's frames as
// they are. Frames are rows of red, green and blue bytes, top row first.
class CaptureLayout final : public Observable, public CanvasHolder {
public:
    enum Type { PluginLayout = 0, ScreenLayout = 1 };
    static constexpr uint64_t QueueLength = 200;
    // Published frames kept for reuse: what the consumers hold in the steady state (the window, a
    // recording, the replay buffer, the camera, a frame each) and the one being drawn. A consumer
    // that falls behind gets fresh frames, freed once it has caught up: the pool does not keep its
    // peak, which at up to a queue of canvas-sized frames per consumer would stay for the run.
    static constexpr uint64_t PoolBlocks = 8;
    static constexpr uint64_t TopWidth = 400, BottomWidth = 320, ScreenHeight = 240;
    // The longest canvas side a plugin may ask for.
    static constexpr qint64 MaxSide = 16384;

    struct Rect {
        double x, y, width, height;
    };

    // Paints background and images at once, so the canvas shows them before any frame comes.
    static std::shared_ptr<CaptureLayout> createWithPlugin(const std::shared_ptr<LayoutPlugin>& plugin,
                                                           const std::shared_ptr<CaptureDevice>& device);
    static std::shared_ptr<CaptureLayout> createWithScreen(const std::shared_ptr<CaptureScreen>& screen,
                                                           const QString& name);

    int type() const { return m_type; }
    const QString& name() const { return m_name; }
    uint64_t width() const { return m_width; }
    uint64_t height() const { return m_height; }
    bool isResizable() const { return m_resizable; }
    const std::optional<Color>& background() const { return m_background; }
    bool fromUser() const { return m_fromUser; }
    // Bytes of one published frame.
    uint64_t size() const { return m_width * m_height * 3; }
    const std::shared_ptr<LayoutPlugin>& plugin() const { return m_plugin; }

    // Consumers subscribe with addObserver before startListening, and remove their observer
    // before stopListening: the layout keeps running while it has observers. Both take the
    // layout's lock, then the screens' (see capture/Observable.h); a recorder may hold its own.
    // The stop that ends the run waits, bounded, for the layout's thread: call it holding no
    // producer's lock.
    bool startListening();
    void stopListening();
    bool isListening();

    // The work of one frame of a plugin layout: draws the screen frames onto the canvas and returns
    // a copy of it stamped with the top frame's time. Without a right eye, the top screen shows in
    // its place. Runs on the layout's thread; benchmarks call it directly.
    CaptureDataPtr composite(CaptureDataPtr top, CaptureDataPtr bottom, CaptureDataPtr topRight = nullptr);

    // Drawing, on the layout's own thread (and once at construction). Screens are drawn only
    // while the layout listens.
    void drawBackground();
    void drawImage(const BlendImage& image, uint64_t x, uint64_t y);
    void drawCanvasSource(const uint8_t* source, Rect rect) { copyScreen(m_canvas.get(), source, rect); }
    void drawCanvasPixelColor(const uint8_t* color, double alpha, uint64_t x, uint64_t y);
    void setCanvasObjectStart(uint64_t index);

    // The canvas as it stands; only for tests, while the layout does not run. Null while the layout
    // waits for room in the canvas budget (see CanvasBudget).
    const uint8_t* canvas() const { return m_canvas.get(); }
    uint64_t dropCanvasIfIdle() override;
    uint64_t objectStart() const { return m_objectStart; }

private:
    // By screen (ScreenId's order); null for a screen the layout does not draw.
    using Subscriptions = std::array<ObserverPtr, ScreenCount>;
    using ScreenFrames = std::array<CaptureDataPtr, ScreenCount>;

    // What drawing does with one of the plug-in's objects, worked out once: one entry per object,
    // in the plug-in's order, so that an entry's index is its object's.
    struct Drawing {
        enum Kind : uint8_t { Nothing, Image, TopScreen, BottomScreen, TopRightScreen };
        Kind kind = Nothing;
        uint64_t x = 0, y = 0;             // positions wrap as unsigned numbers (see BlendImage)
        const BlendImage* image = nullptr; // an entry of m_images

        // The screen a screen's drawing shows, by ScreenId.
        size_t screen() const { return kind == BottomScreen ? 1 : kind == TopRightScreen ? 2 : 0; }
    };

    CaptureLayout(int type, QString name);
    void initialize();
    // Makes and paints the canvas, when the budget has room (after letting idle layouts' canvases
    // go, with `mayDrop`); true when the canvas is there.
    bool makeCanvas(bool mayDrop);
    bool hasCanvas();
    // Loads each image the plug-in names once, for all the places it is drawn at.
    void loadImages();
    void drawCanvas(bool drawScreens);
    // Copies a screen's rows into a canvas-sized block at the rectangle's place.
    void copyScreen(uint8_t* target, const uint8_t* source, Rect rect) const;
    // Prepares compositing straight into the published frame (see m_staticSpans).
    void findStaticSpans();
    // Ends the run under the layout's lock; the caller joins the thread once it let go.
    void endRun();
    void listener(const Worker::Run& run, const Subscriptions& subscriptions);
    // One pass; returns whether a frame was taken.
    bool update(const Subscriptions& subscriptions);
    // Takes the oldest frame of each screen drawn when they are all of the same board frame; when
    // they are not, drops an older one (`frames` stays empty). False when a screen has no frame.
    bool takeFrames(const Subscriptions& subscriptions, ScreenFrames& frames);

    const int m_type;
    const QString m_name;
    std::shared_ptr<LayoutPlugin> m_plugin;
    std::shared_ptr<CaptureDevice> m_device;
    // The screens drawn, by ScreenId (a screen layout's one first); null for one not drawn.
    std::array<std::shared_ptr<CaptureScreen>, ScreenCount> m_screens;
    uint64_t m_width = 0;
    uint64_t m_height = 0;
    bool m_resizable = false;
    std::optional<Color> m_background;
    bool m_fromUser = false;
    std::vector<BlendImage> m_images; // not resized after initialize(): m_drawings point into it
    std::vector<Drawing> m_drawings;

    // Guarded by the Observable lock: the flag and the subscriptions of the current run.
    bool m_listening = false;
    DropReport m_drops;     // guarded by m_lock
    DropReport m_unmatched; // screen frames dropped for want of a partner; guarded by m_lock
    Subscriptions m_observer;

    // The drawing state belongs to the layout's thread, and to benchmarks and the constructor
    // calling composite() and drawing directly.
    std::mutex m_drawMutex;
    std::unique_ptr<uint8_t[]> m_canvas;
    ScreenFrames m_screenData;
    bool m_firstDraw = true;
    uint64_t m_objectStart = 0;

    // When every object from the first screen on is a screen lying inside the canvas, the canvas
    // outside those screens never changes after the first drawing. A frame is then made by copying
    // just these spans (byte offset, length) of the canvas and the screens straight into the frame,
    // which halves the bytes copied. Empty when the layout does not qualify.
    std::vector<std::pair<uint64_t, uint64_t>> m_staticSpans;
    bool m_direct = false;
    // The published frames' blocks: a full queue, the frame a consumer has in hand and the one
    // being drawn. Made with the first frame.
    FramePoolPtr m_pool;

    // Last: destroyed first, it joins the thread before the members above go.
    Worker m_worker{"zandor-layout"};
};

using LayoutPtr = std::shared_ptr<CaptureLayout>;

} // namespace zandor
