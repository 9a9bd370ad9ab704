// Draws the panel's pictures 5000 to 5015 as PNGs, the same bytes on every run: usage
// make_panel_pictures OUTPUT-FOLDER. The sizes follow the panel's layout (control rectangles in
// panel pixels); each control picture carries the background it sits on, so a plain block copy
// never shows a seam. One light from above: highlights on top edges, shadows below.
#include <cairo.h>

#include <cmath>
#include <cstdio>
#include <functional>
#include <string>

namespace {

constexpr int kWidth = 480, kHeight = 214;
constexpr int kHeader = 36; // the dark strip with the switches
constexpr const char* kFace = "DejaVu Sans Condensed";

struct Rgb {
    double r, g, b;
};
constexpr Rgb Hex(unsigned v) {
    return {((v >> 16) & 0xFF) / 255.0, ((v >> 8) & 0xFF) / 255.0, (v & 0xFF) / 255.0};
}
void Set(cairo_t* cr, Rgb c, double a = 1.0) {
    cairo_set_source_rgba(cr, c.r, c.g, c.b, a);
}

const Rgb kInk = Hex(0x34383E), kInkSoft = Hex(0x6A7078), kHeaderInk = Hex(0xC9CED6);

// The panel behind everything, at panel coordinates: a dark header and a brushed light body.
void Panel(cairo_t* cr) {
    cairo_pattern_t* body = cairo_pattern_create_linear(0, kHeader, 0, kHeight);
    cairo_pattern_add_color_stop_rgb(body, 0, 0.890, 0.898, 0.910);
    cairo_pattern_add_color_stop_rgb(body, 1, 0.800, 0.812, 0.827);
    cairo_set_source(cr, body);
    cairo_rectangle(cr, 0, kHeader, kWidth, kHeight - kHeader);
    cairo_fill(cr);
    cairo_pattern_destroy(body);
    // fine horizontal grain, fixed, so the picture is the same every time
    for (int y = kHeader; y < kHeight; ++y) {
        const double a = 0.018 * std::sin(y * 1.7) + 0.012 * std::sin(y * 0.37 + 1.0);
        cairo_set_source_rgba(cr, a > 0 ? 1 : 0, a > 0 ? 1 : 0, a > 0 ? 1 : 0, std::fabs(a));
        cairo_rectangle(cr, 0, y, kWidth, 1);
        cairo_fill(cr);
    }
    cairo_pattern_t* head = cairo_pattern_create_linear(0, 0, 0, kHeader);
    cairo_pattern_add_color_stop_rgb(head, 0, 0.196, 0.212, 0.235);
    cairo_pattern_add_color_stop_rgb(head, 1, 0.133, 0.145, 0.165);
    cairo_set_source(cr, head);
    cairo_rectangle(cr, 0, 0, kWidth, kHeader);
    cairo_fill(cr);
    cairo_pattern_destroy(head);
    Set(cr, Hex(0xFFFFFF), 0.10); // the header's top highlight
    cairo_rectangle(cr, 0, 0, kWidth, 1);
    cairo_fill(cr);
    Set(cr, Hex(0x0B0C0E));
    cairo_rectangle(cr, 0, kHeader - 1, kWidth, 1);
    cairo_fill(cr);
    Set(cr, Hex(0xFFFFFF), 0.65); // the body's lit top edge
    cairo_rectangle(cr, 0, kHeader, kWidth, 1);
    cairo_fill(cr);
}

void RoundRect(cairo_t* cr, double x, double y, double w, double h, double r) {
    cairo_new_sub_path(cr);
    cairo_arc(cr, x + w - r, y + r, r, -M_PI / 2, 0);
    cairo_arc(cr, x + w - r, y + h - r, r, 0, M_PI / 2);
    cairo_arc(cr, x + r, y + h - r, r, M_PI / 2, M_PI);
    cairo_arc(cr, x + r, y + r, r, M_PI, 3 * M_PI / 2);
    cairo_close_path(cr);
}

void Font(cairo_t* cr, double size, bool bold = true) {
    cairo_select_font_face(cr, kFace, CAIRO_FONT_SLANT_NORMAL,
                           bold ? CAIRO_FONT_WEIGHT_BOLD : CAIRO_FONT_WEIGHT_NORMAL);
    cairo_set_font_size(cr, size);
    cairo_font_options_t* o = cairo_font_options_create();
    cairo_font_options_set_antialias(o, CAIRO_ANTIALIAS_GRAY);
    cairo_font_options_set_hint_style(o, CAIRO_HINT_STYLE_SLIGHT);
    cairo_font_options_set_hint_metrics(o, CAIRO_HINT_METRICS_ON);
    cairo_set_font_options(cr, o);
    cairo_font_options_destroy(o);
}

// Text with its left (align 0), centre (0.5) or right (1) at x and its baseline at y, on whole
// pixels.
void Text(cairo_t* cr, const char* s, double x, double y, double align = 0.5) {
    cairo_text_extents_t e;
    cairo_text_extents(cr, s, &e);
    cairo_move_to(cr, std::round(x - e.x_advance * align), std::round(y));
    cairo_show_text(cr, s);
}

// Engraved text on the light body: a light line under dark letters.
void Engraved(cairo_t* cr, const char* s, double x, double y, double align = 0.5, Rgb ink = kInk) {
    Set(cr, Hex(0xFFFFFF), 0.7);
    Text(cr, s, x, y + 1, align);
    Set(cr, ink);
    Text(cr, s, x, y, align);
}

// A recessed field (read-outs, the meter's bed).
void Well(cairo_t* cr, double x, double y, double w, double h, Rgb fill, double r = 2.5) {
    Set(cr, Hex(0xFFFFFF), 0.75);
    RoundRect(cr, x - 0.5, y - 0.5, w + 1, h + 2, r + 0.5);
    cairo_fill(cr);
    Set(cr, Hex(0x8C939C));
    RoundRect(cr, x - 0.5, y - 0.5, w + 1, h + 1, r + 0.5);
    cairo_fill(cr);
    Set(cr, fill);
    RoundRect(cr, x + 0.5, y + 0.5, w - 1, h - 1, r);
    cairo_fill(cr);
    cairo_pattern_t* shade = cairo_pattern_create_linear(0, y, 0, y + 4);
    cairo_pattern_add_color_stop_rgba(shade, 0, 0, 0, 0, 0.22);
    cairo_pattern_add_color_stop_rgba(shade, 1, 0, 0, 0, 0);
    cairo_set_source(cr, shade);
    RoundRect(cr, x + 0.5, y + 0.5, w - 1, h - 1, r);
    cairo_fill(cr);
    cairo_pattern_destroy(shade);
}

// Where a slider's knob centre sits for a value, in panel rows (travel from y0 at the bottom to
// y1).
double Travel(double top, double height, double knob, double fraction) {
    const double y0 = height - std::floor(knob / 2), y1 = std::floor(knob / 2);
    return top + y0 - fraction * (y0 - y1);
}

constexpr int kKnobH = 11, kKnobW = 14;

// A fader slot: a dark groove with its light lower lip, at panel position (x, y), w x h.
void Track(cairo_t* cr, double x, double y, double w, double h) {
    const double cx = x + w / 2;
    Set(cr, Hex(0xFFFFFF), 0.8);
    RoundRect(cr, cx - 2.5, y + 2, 5, h - 3, 2.5);
    cairo_fill(cr);
    Set(cr, Hex(0x1E2125));
    RoundRect(cr, cx - 2.5, y + 1, 5, h - 3, 2.5);
    cairo_fill(cr);
    Set(cr, Hex(0x000000), 0.5);
    cairo_rectangle(cr, cx - 1.5, y + 2, 3, 1);
    cairo_fill(cr);
}

// A fader cap, w x h, at (x, y): brushed metal with a centre line in the accent colour.
void Knob(cairo_t* cr, double x, double y, double w, double h, Rgb accent) {
    Set(cr, Hex(0x000000), 0.35);
    RoundRect(cr, x, y + 1, w, h - 1, 2);
    cairo_fill(cr);
    cairo_pattern_t* metal = cairo_pattern_create_linear(0, y, 0, y + h - 1);
    cairo_pattern_add_color_stop_rgb(metal, 0, 0.97, 0.97, 0.98);
    cairo_pattern_add_color_stop_rgb(metal, 0.45, 0.83, 0.84, 0.86);
    cairo_pattern_add_color_stop_rgb(metal, 0.55, 0.74, 0.75, 0.78);
    cairo_pattern_add_color_stop_rgb(metal, 1, 0.86, 0.87, 0.89);
    cairo_set_source(cr, metal);
    RoundRect(cr, x + 0.5, y + 0.5, w - 1, h - 2, 1.5);
    cairo_fill_preserve(cr);
    cairo_pattern_destroy(metal);
    Set(cr, Hex(0x4A4F57));
    cairo_set_line_width(cr, 1);
    cairo_stroke(cr);
    Set(cr, accent);
    cairo_rectangle(cr, x + 2, y + std::floor(h / 2) - 1, w - 4, 2);
    cairo_fill(cr);
}

// The clip lamp, 47 x 8 at (0, 0). The panel never lights it, so the background carries it dark.
void ClipLamp(cairo_t* cr, bool lit) {
    Set(cr, Hex(0x000000), 0.4);
    RoundRect(cr, 0, 0, 47, 8, 3);
    cairo_fill(cr);
    Set(cr, lit ? Hex(0xFF4B3E) : Hex(0x3A1F1E));
    RoundRect(cr, 1, 1, 45, 6, 2.5);
    cairo_fill(cr);
    Set(cr, Hex(0xFFFFFF), lit ? 0.5 : 0.08);
    cairo_rectangle(cr, 4, 2, 39, 1);
    cairo_fill(cr);
}

// A picture made of part of the panel with something drawn over it.
using Draw = std::function<void(cairo_t*)>;
bool Write(const std::string& folder, int id, int w, int h, const Draw& draw) {
    cairo_surface_t* s = cairo_image_surface_create(CAIRO_FORMAT_RGB24, w, h);
    cairo_t* cr = cairo_create(s);
    draw(cr);
    cairo_destroy(cr);
    const std::string path = folder + "/" + std::to_string(id) + ".png";
    const bool ok = cairo_surface_write_to_png(s, path.c_str()) == CAIRO_STATUS_SUCCESS;
    cairo_surface_destroy(s);
    if (!ok)
        std::fprintf(stderr, "make_panel_pictures: cannot write %s\n", path.c_str());
    return ok;
}
// The panel under a control's rectangle at (x, y), as the first layer of its picture; for
// pictures of stacked states, the same background under each.
Draw OnPanel(int x, int y, int stateHeight, int states,
             const std::function<void(cairo_t*, int)>& top) {
    return [=](cairo_t* cr) {
        for (int s = 0; s < states; ++s) {
            cairo_save(cr);
            cairo_rectangle(cr, 0, s * stateHeight, 1000, stateHeight);
            cairo_clip(cr);
            cairo_translate(cr, -x, -y + s * stateHeight);
            Panel(cr);
            cairo_restore(cr);
            cairo_save(cr);
            cairo_translate(cr, 0, s * stateHeight);
            top(cr, s);
            cairo_restore(cr);
        }
    };
}

// A header button, w x h at (0, 0), raised or pressed.
void HeaderButton(cairo_t* cr, double w, double h, bool pressed) {
    Set(cr, Hex(0x000000), 0.55);
    RoundRect(cr, 0.5, 1.5, w - 1, h - 1.5, 3);
    cairo_fill(cr);
    cairo_pattern_t* face = cairo_pattern_create_linear(0, 0, 0, h);
    if (pressed) {
        cairo_pattern_add_color_stop_rgb(face, 0, 0.16, 0.17, 0.19);
        cairo_pattern_add_color_stop_rgb(face, 1, 0.22, 0.235, 0.26);
    } else {
        cairo_pattern_add_color_stop_rgb(face, 0, 0.34, 0.36, 0.40);
        cairo_pattern_add_color_stop_rgb(face, 1, 0.23, 0.245, 0.27);
    }
    cairo_set_source(cr, face);
    RoundRect(cr, 0.5, 0.5, w - 1, h - 2, 3);
    cairo_fill(cr);
    cairo_pattern_destroy(face);
    Set(cr, Hex(0xFFFFFF), pressed ? 0.04 : 0.16);
    cairo_rectangle(cr, 3, 1, w - 6, 1);
    cairo_fill(cr);
}

void PowerGlyph(cairo_t* cr, double cx, double cy, double r, Rgb c, bool glow) {
    if (glow) {
        cairo_pattern_t* g = cairo_pattern_create_radial(cx, cy, 0, cx, cy, r * 2.4);
        cairo_pattern_add_color_stop_rgba(g, 0, c.r, c.g, c.b, 0.45);
        cairo_pattern_add_color_stop_rgba(g, 1, c.r, c.g, c.b, 0);
        cairo_set_source(cr, g);
        cairo_arc(cr, cx, cy, r * 2.4, 0, 2 * M_PI);
        cairo_fill(cr);
        cairo_pattern_destroy(g);
    }
    Set(cr, c);
    cairo_set_line_width(cr, 1.6);
    cairo_set_line_cap(cr, CAIRO_LINE_CAP_ROUND);
    cairo_arc(cr, cx, cy, r, -M_PI / 2 + 0.75, 3 * M_PI / 2 - 0.75);
    cairo_stroke(cr);
    cairo_move_to(cr, cx, cy - r - 1.2);
    cairo_line_to(cr, cx, cy - 0.6);
    cairo_stroke(cr);
}

// A lamp or a labelled button face, 43 x 16.
void Plate(cairo_t* cr, const char* label, Rgb face, Rgb ink, double glow) {
    HeaderButton(cr, 43, 16, false);
    if (glow > 0) {
        Set(cr, face);
        RoundRect(cr, 2.5, 2.5, 38, 10, 2);
        cairo_fill(cr);
        Set(cr, Hex(0xFFFFFF), 0.35);
        cairo_rectangle(cr, 4, 3, 35, 1);
        cairo_fill(cr);
    }
    Font(cr, 8);
    Set(cr, ink);
    Text(cr, label, 21.5, 11);
}

} // namespace

int main(int argc, char** argv) {
    if (argc != 2) {
        std::fprintf(stderr, "usage: %s OUTPUT-FOLDER\n", argv[0]);
        return 2;
    }
    const std::string out = argv[1];
    const Rgb green = Hex(0x47E08A), amber = Hex(0xFFB23D), red = Hex(0xFF4B3E),
              blue = Hex(0x4FA3FF);
    bool ok = true;

    // 5000: the background, labelled
    ok &= Write(out, 5000, kWidth, kHeight, [&](cairo_t* cr) {
        Panel(cr);
        // header captions under the switches, and the name
        Font(cr, 7);
        Set(cr, kHeaderInk, 0.8);
        Text(cr, "ON/OFF", 37.5, 34);
        Text(cr, "COPY", 76.5, 34);
        Text(cr, "REVERT", 127.5, 34);
        Text(cr, "STORE", 181.5, 34);
        Font(cr, 15);
        Set(cr, Hex(0xE9ECF0));
        Text(cr, "MORVANE", 466, 22, 1);
        Font(cr, 7, false);
        Set(cr, kHeaderInk, 0.75);
        Text(cr, "TIME STRETCH  \xC2\xB7  PITCH SHIFT", 466, 31, 1);

        // left: the clip lamp's caption, the low-sound switch, and a picture of what it does
        cairo_save(cr);
        cairo_translate(cr, 31, 44);
        ClipLamp(cr, false);
        cairo_restore(cr);
        Font(cr, 7);
        Engraved(cr, "CLIP", 82, 51, 0);
        Well(cr, 14, 62, 140, 44, Hex(0xDDE1E5), 3);
        cairo_save(cr);
        RoundRect(cr, 15, 63, 138, 42, 2.5);
        cairo_clip(cr);
        // one waveform drawn at its own length and again stretched: what the plug-in does
        for (int pass = 0; pass < 2; ++pass) {
            const double stretch = pass ? 1.6 : 1.0;
            const double base = pass ? 94 : 76;
            Set(cr, pass ? blue : kInkSoft, pass ? 0.95 : 0.8);
            cairo_set_line_width(cr, 1.1);
            for (double x = 0; x <= 128; x += 0.5) {
                const double t = x / stretch;
                const double env = std::exp(-std::pow((t - 30) / 16, 2)) +
                                   0.6 * std::exp(-std::pow((t - 62) / 10, 2));
                const double y = base - 8 * env * std::sin(t * 0.9);
                if (x == 0)
                    cairo_move_to(cr, 20 + x, y);
                else
                    cairo_line_to(cr, 20 + x, y);
            }
            cairo_stroke(cr);
        }
        cairo_restore(cr);
        Engraved(cr, "LOW SOUND", 94, 128, 1);
        Font(cr, 6.5, false);
        Engraved(cr, "20 ms onset analysis", 84, 142, 0.5, kInkSoft);

        // the three sliders' scales, read-outs, units and names
        auto ticks = [&](double trackX, double top, double height, double knob,
                         const char* const* labels, const double* fractions, int n) {
            Font(cr, 6.5, false);
            for (int i = 0; i < n; ++i) {
                const double y = std::round(Travel(top, height, knob, fractions[i])) + 0.5;
                Set(cr, kInkSoft);
                cairo_rectangle(cr, trackX + 18, y - 0.5, i % 2 ? 3 : 5, 1);
                cairo_fill(cr);
                Engraved(cr, labels[i], trackX + 25, y + 2.5, 0, kInkSoft);
            }
        };
        const char* pitchLabels[] = {"-1200", "-600", "0", "+600", "+1200"};
        const double pitchAt[] = {0, 0.25, 0.5, 0.75, 1};
        ticks(184, 47, 131, kKnobH, pitchLabels, pitchAt, 5);
        const char* timeLabels[] = {"50", "75", "100", "150", "200"};
        const double timeAt[] = {0, 25 / 150.0, 50 / 150.0, 100 / 150.0, 1};
        ticks(266, 47, 131, kKnobH, timeLabels, timeAt, 5);
        // output: 6 dB per doubling over a normalised gain, on the slider's logarithmic travel
        Font(cr, 6.5, false);
        for (double db : {6.0, 0.0, -6.0, -12.0, -24.0, -48.0}) {
            const double n = (std::pow(2.0, db / 6) - 0.001) / 1.999;
            const double y0 = 133 - 5, y1 = 5;
            const double y = std::round(45 + y0 + (y1 - y0) * std::log10(n * 9 + 1)) + 0.5;
            Set(cr, kInkSoft);
            cairo_rectangle(cr, 397, y - 0.5, 5, 1);
            cairo_fill(cr);
            char s[8];
            std::snprintf(s, sizeof(s), db > 0 ? "+%g" : "%g", db);
            Engraved(cr, s, 395, y + 2.5, 1, kInkSoft);
        }
        // the meter's bed and its scale: +6 dB at row 1, 3 rows per dB
        Well(cr, 421, 44, 18, 136, Hex(0x15171A), 2);
        for (int db = 6; db >= -36; db -= 6) {
            const int row = 45 + static_cast<int>(db * -3.0 + 19.0);
            Set(cr, kInkSoft);
            cairo_rectangle(cr, 440, row, 3, 1);
            cairo_fill(cr);
            char s[8];
            std::snprintf(s, sizeof(s), db > 0 ? "+%d" : "%d", db);
            Engraved(cr, s, 445, row + 3, 0, kInkSoft);
        }
        // read-outs: light wells for the dark figures, the unit after each, the name under it
        struct ReadOut {
            double l, t, r, b;
            const char* unit;
            const char* name;
            double nameX;
        };
        for (const ReadOut& o : {ReadOut{168, 186, 216, 200, "cent", "PITCH", 192},
                                 ReadOut{250, 186, 298, 200, "%", "TIME", 274},
                                 ReadOut{404, 186, 438, 200, "dB", "OUTPUT", 421}}) {
            Well(cr, o.l - 1, o.t - 1, o.r - o.l + 2, o.b - o.t + 2, Hex(0xF4F6EE));
            Font(cr, 7, false);
            Engraved(cr, o.unit, o.r + 4, o.b - 3.5, 0, kInkSoft);
            Font(cr, 8.5);
            Engraved(cr, o.name, o.nameX, 211);
        }
        // a groove between the time-pitch section and the output section
        Set(cr, Hex(0x9BA2AB));
        cairo_rectangle(cr, 352, 48, 1, 150);
        cairo_fill(cr);
        Set(cr, Hex(0xFFFFFF), 0.7);
        cairo_rectangle(cr, 353, 48, 1, 150);
        cairo_fill(cr);
    });

    // 5001: a rotary knob's film strip, 31 frames of 32 x 32 from -135 to +135 degrees
    ok &= Write(out, 5001, 32, 32 * 31, [&](cairo_t* cr) {
        for (int f = 0; f < 31; ++f) {
            const double cx = 16, cy = 16 + 32 * f;
            Set(cr, Hex(0xD9DCE0));
            cairo_rectangle(cr, 0, 32 * f, 32, 32);
            cairo_fill(cr);
            Set(cr, Hex(0x000000), 0.3);
            cairo_arc(cr, cx, cy + 1, 13, 0, 2 * M_PI);
            cairo_fill(cr);
            cairo_pattern_t* g = cairo_pattern_create_linear(0, cy - 13, 0, cy + 13);
            cairo_pattern_add_color_stop_rgb(g, 0, 0.35, 0.37, 0.41);
            cairo_pattern_add_color_stop_rgb(g, 1, 0.16, 0.17, 0.19);
            cairo_set_source(cr, g);
            cairo_arc(cr, cx, cy, 12.5, 0, 2 * M_PI);
            cairo_fill(cr);
            cairo_pattern_destroy(g);
            const double a = (-135 + 270.0 * f / 30) * M_PI / 180 - M_PI / 2;
            Set(cr, amber);
            cairo_set_line_width(cr, 2);
            cairo_set_line_cap(cr, CAIRO_LINE_CAP_ROUND);
            cairo_move_to(cr, cx + 4 * std::cos(a), cy + 4 * std::sin(a));
            cairo_line_to(cr, cx + 10 * std::cos(a), cy + 10 * std::sin(a));
            cairo_stroke(cr);
        }
    });

    // ON/OFF at (23,7), 29 x 20: released over pressed; 5003 off, 5002 on
    for (int on = 0; on < 2; ++on)
        ok &= Write(out, on ? 5002 : 5003, 29, 40,
                    OnPanel(23, 7, 20, 2, [&](cairo_t* cr, int pressed) {
                        cairo_translate(cr, 0, pressed);
                        HeaderButton(cr, 29, 19, pressed);
                        PowerGlyph(cr, 14.5, 9.5, 4.5, on ? green : Hex(0x8A9099), on);
                    }));
    // LowSound at (99,118), 14 x 12: a small key with a lamp; 5005 off, 5004 on
    for (int on = 0; on < 2; ++on)
        ok &= Write(
            out, on ? 5004 : 5005, 14, 24, OnPanel(99, 118, 12, 2, [&](cairo_t* cr, int pressed) {
                Set(cr, Hex(0x000000), 0.35);
                RoundRect(cr, 0.5, 1.5, 13, 10.5, 2);
                cairo_fill(cr);
                cairo_pattern_t* g = cairo_pattern_create_linear(0, 0, 0, 12);
                cairo_pattern_add_color_stop_rgb(g, 0, pressed ? 0.72 : 0.96, pressed ? 0.73 : 0.96,
                                                 pressed ? 0.75 : 0.97);
                cairo_pattern_add_color_stop_rgb(g, 1, 0.78, 0.79, 0.81);
                cairo_set_source(cr, g);
                RoundRect(cr, 0.5, 0.5, 13, 10.5, 2);
                cairo_fill(cr);
                cairo_pattern_destroy(g);
                Set(cr, on ? amber : Hex(0x5E636B));
                RoundRect(cr, 4, 4 + pressed * 0.5, 6, 3, 1);
                cairo_fill(cr);
            }));
    // the clip lamp, 47 x 8 at (31,44): dark, then lit
    ok &= Write(out, 5006, 47, 16,
                OnPanel(31, 44, 8, 2, [&](cairo_t* cr, int lit) { ClipLamp(cr, lit); }));
    // fader tracks and caps: pitch and time at (184,47) 16 x 131, output at (403,45) 16 x 133
    ok &= Write(out, 5007, 16, 131,
                OnPanel(184, 47, 131, 1, [&](cairo_t* cr, int) { Track(cr, 0, 0, 16, 131); }));
    ok &= Write(out, 5009, 16, 133,
                OnPanel(403, 45, 133, 1, [&](cairo_t* cr, int) { Track(cr, 0, 0, 16, 133); }));
    ok &= Write(out, 5008, kKnobW, kKnobH, [&](cairo_t* cr) {
        Set(cr, Hex(0x1E2125)); // the groove it rides in shows at its corners
        cairo_paint(cr);
        Knob(cr, 0, 0, kKnobW, kKnobH, blue);
    });
    ok &= Write(out, 5010, kKnobW, kKnobH, [&](cairo_t* cr) {
        Set(cr, Hex(0x1E2125));
        cairo_paint(cr);
        Knob(cr, 0, 0, kKnobW, kKnobH, amber);
    });
    // the meter: 134 rows, unlit segments on the left half, lit on the right; a segment a dB
    ok &= Write(out, 5011, 14, 134, [&](cairo_t* cr) {
        Set(cr, Hex(0x15171A));
        cairo_paint(cr);
        for (int row = 1; row + 2 <= 134; row += 3) {
            const double db = (19.0 - row) / 3.0;
            const Rgb c = db > 0 ? red : db > -6 ? amber : green;
            for (int half = 0; half < 2; ++half) {
                Set(cr, c, half ? 1.0 : 0.16);
                cairo_rectangle(cr, half * 7 + 1, row, 5, 2);
                cairo_fill(cr);
            }
        }
    });
    // the copy menu at (64,10), 25 x 17: 5013 resting, 5012 open
    for (int open = 0; open < 2; ++open)
        ok &= Write(out, open ? 5012 : 5013, 25, 34,
                    OnPanel(64, 10, 17, 2, [&](cairo_t* cr, int pressed) {
                        const bool down = pressed || open;
                        cairo_translate(cr, 0, down ? 1 : 0);
                        HeaderButton(cr, 25, 16, down);
                        Set(cr, open ? blue : kHeaderInk);
                        cairo_set_line_width(cr, 1);
                        cairo_rectangle(cr, 5.5, 3.5, 6, 7);
                        cairo_stroke(cr);
                        cairo_rectangle(cr, 8.5, 5.5, 6, 7);
                        cairo_fill(cr);
                        cairo_move_to(cr, 17, 7);
                        cairo_line_to(cr, 22, 7);
                        cairo_line_to(cr, 19.5, 10);
                        cairo_close_path(cr);
                        cairo_fill(cr);
                    }));
    // store at (160,10), 43 x 16
    ok &= Write(out, 5014, 43, 16, OnPanel(160, 10, 16, 1, [&](cairo_t* cr, int) {
                    Plate(cr, "SAVE", Hex(0), kHeaderInk, 0);
                }));
    // the modified lamp at (106,10), 43 x 16: unchanged above, changed (lit) below
    ok &= Write(out, 5015, 43, 32, OnPanel(106, 10, 16, 2, [&](cairo_t* cr, int changed) {
                    Plate(cr, "EDITED", amber, changed ? Hex(0x2A1C05) : Hex(0x6B7078),
                          changed ? 1 : 0);
                }));
    return ok ? 0 : 1;
}
