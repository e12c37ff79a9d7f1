// Which part of a drawing is seen: the viewBox of an SVG element that fills its place.

const MIN_WIDTH = 120;
const MAX_WIDTH = 200000;

export class Viewport {
    view = { x: 0, y: 0, width: 100, height: 100 };
    #frame = null;
    #fitted = null; // the bounds, until somebody moves the picture

    constructor(surface) {
        this.surface = surface;
        this.observer = new ResizeObserver(() =>
            this.#fitted ? this.fit(this.#fitted) : this.set(this.view),
        );
        this.observer.observe(surface);
    }

    close() {
        this.observer.disconnect();
    }

    fit(bounds) {
        this.set(bounds);
        this.#fitted = bounds;
    }

    // Grown to the shape of the surface, so that scale() holds both ways.
    set({ x, y, width, height }) {
        this.#fitted = null;
        const shape = this.surface.clientWidth / Math.max(1, this.surface.clientHeight) || 1;
        const wide = Math.max(width, height * shape);
        const high = wide / shape;
        this.view = { x: x - (wide - width) / 2, y: y - (high - height) / 2, width: wide, height: high };
        this.#frame ??= requestAnimationFrame(() => {
            this.#frame = null;
            const { x: left, y: top, width: across, height: down } = this.view;
            this.surface.setAttribute("viewBox", `${left} ${top} ${across} ${down}`);
        });
    }

    // Units of the drawing for a pixel.
    scale() {
        return this.view.width / Math.max(1, this.surface.clientWidth);
    }

    // By a factor, about a point of the screen or the middle.
    zoom(factor, point) {
        const box = this.surface.getBoundingClientRect();
        const [u, v] = point
            ? [(point.clientX - box.left) / box.width, (point.clientY - box.top) / box.height]
            : [0.5, 0.5];
        const { x, y, width, height } = this.view;
        const wide = Math.min(MAX_WIDTH, Math.max(MIN_WIDTH, width * factor));
        const actual = wide / width;
        this.set({
            x: x + u * width * (1 - actual),
            y: y + v * height * (1 - actual),
            width: wide,
            height: height * actual,
        });
    }

    // Two fingers, one of which has moved.
    pinch(before, now, other) {
        const distance = (finger) =>
            Math.hypot(finger.clientX - other.clientX, finger.clientY - other.clientY);
        if (distance(now) > 10) {
            this.zoom(distance(before) / distance(now), {
                clientX: (now.clientX + other.clientX) / 2,
                clientY: (now.clientY + other.clientY) / 2,
            });
        }
    }

    reveal({ x, y }) {
        const { view } = this;
        if (x < view.x || y < view.y || x > view.x + view.width || y > view.y + view.height) {
            this.set({ ...view, x: x - view.width / 2, y: y - view.height / 2 });
        }
    }
}
