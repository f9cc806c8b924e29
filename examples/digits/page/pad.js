// The surface to write on. Strokes are kept as points in CSS pixels of the drawing and drawn anew
// whenever the surface changes: nothing is lost to another size, rotation or device ratio.

import { PEN } from './frames.js';

const MARGIN = 12;        // CSS pixels around a drawing that is larger than the surface
const MOST_UNDONE = 200;  // steps that can be taken back

export class Pad {
  #canvas;
  #context;
  #strokes = [];
  #earlier = [];     // what the drawing was before each step
  #active = null;    // the pointer that draws: { id, type, stroke }
  #penSeen = false;
  #scale = 1;        // CSS pixels of the surface for one of the drawing, less where it would not fit
  #willDraw = false;
  #told;             // who is told of what happens here

  /**
   * Calls `begun` when a stroke begins, `changed` when the drawing has changed, `resized` when only
   * its scale has, and `penSeen` when a pen was used for the first time.
   */
  constructor(canvas, { begun, changed, resized, penSeen }) {
    this.#canvas = canvas;
    this.#context = canvas.getContext('2d');
    this.#told = { begun, changed, resized, penSeen };
    /** Whether fingers draw although a pen was seen, beside which they are palms. */
    this.fingersDraw = false;

    const on = (name, handler) => canvas.addEventListener(name, handler.bind(this));
    on('pointerdown', this.#down);
    on('pointermove', this.#move);
    on('pointerup', this.#up);
    on('pointercancel', this.#end);
    on('lostpointercapture', this.#end);
    on('contextmenu', (event) => event.preventDefault());
    new ResizeObserver(() => this.#resize()).observe(canvas);
    matchMedia('(prefers-color-scheme: dark)').addEventListener('change', () => this.#redraw());
    this.#watchDeviceRatio();
  }

  get strokes() { return this.#strokes; }
  get scale() { return this.#scale; }

  /** Takes the last step back: a stroke, a clearing or a sample. */
  undo() {
    if (this.#earlier.length === 0) return;
    this.#active = null;
    this.#strokes = this.#earlier.pop();
    this.#fit();
    this.#told.changed();
  }

  clear() { this.show([]); }

  /** Another drawing in place of this one. */
  show(strokes) {
    this.#active = null;
    if (strokes.length === 0 && this.#strokes.length === 0) return;
    this.#remember();
    this.#strokes = strokes;
    this.#fit();
    this.#told.changed();
  }

  #remember() {
    this.#earlier.push(this.#strokes);
    if (this.#earlier.length > MOST_UNDONE) this.#earlier.shift();
  }

  #pointOf(event) {
    const box = this.#canvas.getBoundingClientRect();
    return [(event.clientX - box.left) / this.#scale, (event.clientY - box.top) / this.#scale];
  }

  #isPalm(event) {
    return event.pointerType === 'touch' && this.#penSeen && !this.fingersDraw;
  }

  #down(event) {
    if (event.pointerType === 'pen' && !this.#penSeen) {
      this.#penSeen = true;
      this.#told.penSeen();
    }
    if (event.button !== 0 || this.#isPalm(event)) return;
    // The hand comes down before the pen: what it drew goes.
    const wasPalm = this.#active?.type === 'touch' && event.pointerType === 'pen' && !this.fingersDraw;
    if (this.#active !== null && !wasPalm) return;
    event.preventDefault();
    if (wasPalm) this.#strokes = this.#earlier.pop();
    const stroke = [this.#pointOf(event)];
    this.#active = { id: event.pointerId, type: event.pointerType, stroke };
    this.#remember();
    this.#strokes = [...this.#strokes, stroke];
    try {
      this.#canvas.setPointerCapture(event.pointerId);
    } catch {
      // The pointer has gone already; its end follows.
    }
    this.#told.begun();
    this.#redraw();
  }

  #move(event) {
    if (event.pointerId !== this.#active?.id) return;
    const between = event.getCoalescedEvents?.() ?? [];
    for (const each of between.length > 0 ? between : [event]) this.#add(this.#pointOf(each));
    this.#redraw();
  }

  #up(event) {
    if (event.pointerId === this.#active?.id) this.#add(this.#pointOf(event));
    this.#end(event);
  }

  #end(event) {
    if (event.pointerId !== this.#active?.id) return;
    this.#active = null;
    this.#redraw();
    this.#told.changed();
  }

  #add(point) {
    const { stroke } = this.#active;
    const last = stroke[stroke.length - 1];
    if (point[0] !== last[0] || point[1] !== last[1]) stroke.push(point);
  }

  #resize() {
    this.#fit();
    this.#told.resized();
  }

  /** Gives the canvas the pixels of its place, and the drawing a scale at which all of it is seen. */
  #fit() {
    const { clientWidth, clientHeight } = this.#canvas;
    if (clientWidth === 0 || clientHeight === 0) return;
    const scaleTo = (length, axis) => {
      const end = this.#strokes.flat().reduce((most, point) => Math.max(most, point[axis]), 0);
      return end <= length ? 1 : length / (end + MARGIN);
    };
    this.#scale = Math.min(scaleTo(clientWidth, 0), scaleTo(clientHeight, 1));
    this.#canvas.width = Math.round(clientWidth * devicePixelRatio);
    this.#canvas.height = Math.round(clientHeight * devicePixelRatio);
    this.#redraw();
  }

  #watchDeviceRatio() {
    matchMedia(`(resolution: ${devicePixelRatio}dppx)`).addEventListener('change', () => {
      this.#watchDeviceRatio();
      this.#resize();
    }, { once: true });
  }

  #redraw() {
    if (this.#willDraw) return;
    this.#willDraw = true;
    requestAnimationFrame(() => {
      this.#willDraw = false;
      this.#draw();
    });
  }

  #draw() {
    const context = this.#context;
    const zoom = this.#scale * devicePixelRatio;
    context.setTransform(1, 0, 0, 1, 0, 0);
    context.clearRect(0, 0, this.#canvas.width, this.#canvas.height);
    context.setTransform(zoom, 0, 0, zoom, 0, 0);
    context.strokeStyle = getComputedStyle(this.#canvas).color;
    context.lineWidth = PEN;
    context.lineCap = 'round';
    context.lineJoin = 'round';
    for (const [first, ...rest] of this.#strokes) {
      context.beginPath();
      context.moveTo(...first);
      // A line without length, with round ends, is a dot.
      for (const point of rest.length > 0 ? rest : [first]) context.lineTo(...point);
      context.stroke();
    }
  }
}
