// Draws the points of the element "cloud" in the element "view": a turntable on which the cloud stands.
(function () {
  "use strict";
  const about = JSON.parse(document.getElementById("cloud").textContent);
  const view = document.getElementById("view"), ruler = document.getElementById("ruler");
  const title = document.title;

  function bytesOf(text) {
    const raw = atob(text), bytes = new Uint8Array(raw.length);
    for (let i = 0; i < raw.length; ++i) bytes[i] = raw.charCodeAt(i);
    return bytes;
  }

  // Without WebGL the pictures below say the same.
  let renderer;
  try {
    renderer = new THREE.WebGLRenderer({ antialias: true });
  } catch (error) {
    document.getElementById("missing").hidden = false;
    document.title = title + ", without 3D view";
    return;
  }

  // Points from their place on the grid and their disparity. X right, Y up, Z towards camera 0, which is at (0, 0, 0).
  const columns = about.columns, rows = about.rows, step = about.step, count = about.points;
  const grid = bytesOf(about.grid), disparities = new Uint16Array(bytesOf(about.disparity).buffer);
  const greys = bytesOf(about.grey), causes = bytesOf(about.cause), ramp = bytesOf(about.ramp);
  const sigmas = about.sigma ? bytesOf(about.sigma) : null;
  const pointAt = new Int32Array(columns * rows).fill(-1), cellOf = new Int32Array(count);
  const positions = new Float32Array(3 * count), removed = new Float32Array(count);
  for (let cell = 0, n = 0; cell < columns * rows; ++cell) {
    if (!(grid[cell >> 3] >> (cell & 7) & 1)) continue;
    const disparity = about.low + disparities[n] / 65535 * (about.high - about.low);
    const z = 1 / (about.slope * disparity + about.offset);
    positions[3 * n] = (cell % columns * step - about.cx) * z / about.f;
    positions[3 * n + 1] = -(Math.floor(cell / columns) * step - about.cy) * z / about.f;
    positions[3 * n + 2] = -z;
    removed[n] = about.removed.includes(causes[n]) ? 1 : 0;
    if (!removed[n]) pointAt[cell] = n;
    cellOf[n++] = cell;
  }

  // Normals by differences of neighbours on the same surface.
  const normals = new Float32Array(3 * count);
  const across = about.half ? columns + 1 : 2, down = about.half ? columns - 1 : 2 * columns;
  function difference(n, cells) {
    const ends = [n, n];
    for (const side of [0, 1]) {
      const other = pointAt[cellOf[n] + (side ? cells : -cells)];
      if (!(other >= 0)) continue;
      const jump = Math.abs(positions[3 * other + 2] - positions[3 * n + 2]);
      if (jump < 12 * step * Math.abs(positions[3 * n + 2]) / about.f) ends[side] = other;
    }
    return [0, 1, 2].map((k) => positions[3 * ends[1] + k] - positions[3 * ends[0] + k]);
  }
  for (let n = 0; n < count; ++n) {
    const a = difference(n, across), b = difference(n, down);
    const c = [a[1] * b[2] - a[2] * b[1], a[2] * b[0] - a[0] * b[2], a[0] * b[1] - a[1] * b[0]];
    const length = Math.hypot(c[0], c[1], c[2]);
    for (let k = 0; k < 3; ++k) normals[3 * n + k] = length > 0 ? c[k] / length : k === 2 ? 1 : 0;
  }

  const colours = new Uint8Array(3 * count);
  function paint(n, table, level) {
    for (let k = 0; k < 3; ++k) colours[3 * n + k] = table[3 * level + k];
  }
  const painters = {
    grey: (n) => colours.fill(greys[n], 3 * n, 3 * n + 3),
    depth: (n) => {
      const part = (-positions[3 * n + 2] - about.depths[0]) / (about.depths[1] - about.depths[0]);
      paint(n, ramp, Math.round(255 * Math.min(Math.max(part, 0), 1)));
    },
    sigma: (n) => sigmas[n] === 255 ? colours.fill(90, 3 * n, 3 * n + 3) : paint(n, ramp, Math.round(sigmas[n] / 254 * 255)),
    cause: (n) => paint(n, about.colours[causes[n]], 0),
  };

  const geometry = new THREE.BufferGeometry();
  geometry.setAttribute("position", new THREE.BufferAttribute(positions, 3));
  geometry.setAttribute("normal", new THREE.BufferAttribute(normals, 3));
  geometry.setAttribute("removed", new THREE.BufferAttribute(removed, 1));
  geometry.setAttribute("colour", new THREE.BufferAttribute(colours, 3, true));
  // A point is a disc that covers its part of the surface, which is the longer the more it turns away from camera 0,
  // lit from where the eye is.
  const material = new THREE.ShaderMaterial({
    uniforms: { pixels: { value: 1 }, light: { value: 1 }, all: { value: 0 } },
    vertexShader: `
      attribute vec3 colour;
      attribute float removed;
      uniform float pixels, light, all;
      varying vec3 shade;
      void main() {
        vec4 seen = modelViewMatrix * vec4(position, 1.0);
        gl_Position = projectionMatrix * seen;
        if (removed > all) gl_Position = vec4(2.0, 2.0, 2.0, 1.0);
        float upright = abs(dot(normal, normalize(position)));
        gl_PointSize = max(1.5, pixels * abs(position.z) / -seen.z / clamp(upright, 0.4, 1.0));
        float facing = abs(dot(normalize(normalMatrix * normal), normalize(seen.xyz)));
        shade = colour * mix(1.0, 0.4 + 0.6 * facing, light);
      }`,
    fragmentShader: `
      varying vec3 shade;
      void main() {
        if (length(gl_PointCoord - 0.5) > 0.5) discard;
        gl_FragColor = vec4(shade, 1.0);
      }`,
  });
  const points = new THREE.Points(geometry, material);
  points.frustumCulled = false;
  const scene = new THREE.Scene();
  scene.background = new THREE.Color(0x1d242c);
  scene.add(points);

  // The middle of the cloud and its extent, which single wrong points do not move.
  const kept = [];
  for (let n = 0, every = Math.ceil(count / 20000); n < count; n += every) if (!removed[n]) kept.push(n);
  const sorted = (values) => Float64Array.from(values).sort();
  const ends = [0, 1, 2].map((k) => {
    const values = sorted(kept.map((n) => positions[3 * n + k]));
    return [values[Math.floor(0.01 * values.length)], values[Math.floor(0.99 * values.length)]];
  });
  const middle = new THREE.Vector3(...ends.map(([low, high]) => 0.5 * (low + high)));
  const radius = 0.5 * Math.hypot(...ends.map(([low, high]) => high - low)) || 1;

  const camera = new THREE.PerspectiveCamera(30, 1, 1, 10);
  const start = { azimuth: 0.4, elevation: 0.15, near: 1 };
  const pose = { target: middle.clone(), ...start }; // radians; near: 1 shows the whole, 0.5 half of it
  function distance() {
    const half = camera.fov * Math.PI / 360;
    return pose.near * 0.92 * radius / Math.sin(Math.min(half, Math.atan(Math.tan(half) * camera.aspect)));
  }
  function lengthOfPixel() {
    return 2 * distance() * Math.tan(camera.fov * Math.PI / 360) / view.clientHeight;
  }
  function showRuler() {
    const most = 150 * lengthOfPixel(), power = Math.pow(10, Math.floor(Math.log10(most)));
    const length = power * (most >= 5 * power ? 5 : most >= 2 * power ? 2 : 1);
    ruler.style.width = length / lengthOfPixel() + "px";
    ruler.textContent = Number(length.toPrecision(1)) + " " + about.unit;
    ruler.hidden = false;
  }

  let asked = false, drawn = false;
  function draw() {
    asked = false;
    const level = Math.cos(pose.elevation);
    camera.position.set(Math.sin(pose.azimuth) * level, Math.sin(pose.elevation), Math.cos(pose.azimuth) * level)
      .multiplyScalar(distance()).add(pose.target);
    camera.near = 0.01 * distance();
    camera.far = 100 * distance();
    camera.updateProjectionMatrix();
    camera.lookAt(pose.target);
    const size = about.half ? 1.7 : 1.3; // of a disc, in steps of the grid
    material.uniforms.pixels.value = size * step / about.f * 0.5 * renderer.domElement.height
      * camera.projectionMatrix.elements[5];
    renderer.render(scene, camera);
    showRuler();
    if (drawn) return;
    drawn = true;
    renderer.getContext().finish();
    performance.mark("first draw");
    document.title = title + ", " + about.said;
  }
  function redraw() {
    if (!asked) requestAnimationFrame(draw);
    asked = true;
  }

  function look(azimuth, elevation) {
    pose.azimuth = azimuth;
    pose.elevation = Math.min(Math.max(elevation, -1.55), 1.55);
    redraw();
  }
  function zoom(factor) {
    pose.near = Math.min(Math.max(pose.near * factor, 0.01), 20);
    redraw();
  }
  function shift(dx, dy) { // px of the view
    const right = new THREE.Vector3(), up = new THREE.Vector3();
    camera.matrixWorld.extractBasis(right, up, new THREE.Vector3());
    pose.target.addScaledVector(right, -dx * lengthOfPixel()).addScaledVector(up, dy * lengthOfPixel());
    redraw();
  }
  function reset() {
    pose.target.copy(middle);
    pose.near = start.near;
    look(start.azimuth, start.elevation);
  }

  // One pointer turns, with shift or another button it shifts; two zoom and shift.
  const pointers = new Map();
  function middleOf() {
    const all = [...pointers.values()], n = all.length;
    return { x: all.reduce((sum, p) => sum + p.x, 0) / n, y: all.reduce((sum, p) => sum + p.y, 0) / n,
      apart: n < 2 ? 0 : Math.hypot(all[0].x - all[1].x, all[0].y - all[1].y) };
  }
  view.addEventListener("pointerdown", (event) => {
    view.setPointerCapture(event.pointerId);
    pointers.set(event.pointerId, { x: event.clientX, y: event.clientY });
  });
  view.addEventListener("pointermove", (event) => {
    if (!pointers.has(event.pointerId)) return;
    const before = middleOf();
    pointers.set(event.pointerId, { x: event.clientX, y: event.clientY });
    const after = middleOf(), dx = after.x - before.x, dy = after.y - before.y;
    if (before.apart > 0 && after.apart > 0) zoom(before.apart / after.apart);
    if (pointers.size > 1 || event.shiftKey || event.buttons > 1) shift(dx, dy);
    else look(pose.azimuth - 0.008 * dx, pose.elevation + 0.008 * dy);
  });
  for (const ended of ["pointerup", "pointercancel"])
    view.addEventListener(ended, (event) => pointers.delete(event.pointerId));
  view.addEventListener("contextmenu", (event) => event.preventDefault());
  view.addEventListener("dblclick", reset);
  view.addEventListener("wheel", (event) => {
    event.preventDefault();
    zoom(Math.exp(0.0015 * event.deltaY * (event.deltaMode === 1 ? 20 : 1)));
  }, { passive: false });
  view.addEventListener("keydown", (event) => {
    const turn = { ArrowLeft: [0.1, 0], ArrowRight: [-0.1, 0], ArrowUp: [0, 0.1], ArrowDown: [0, -0.1] }[event.key];
    if (turn) look(pose.azimuth + turn[0], pose.elevation + turn[1]);
    else if (event.key === "+" || event.key === "-") zoom(event.key === "+" ? 0.9 : 1 / 0.9);
    else if (event.key === "Home") reset();
    else return;
    event.preventDefault();
  });
  for (const button of document.querySelectorAll("[data-azimuth]"))
    button.addEventListener("click", () => look(Number(button.dataset.azimuth), Number(button.dataset.elevation)));
  document.getElementById("whole").addEventListener("click", reset);

  const light = document.getElementById("light");
  function colour(name) {
    for (let n = 0; n < count; ++n) painters[name](n);
    geometry.attributes.colour.needsUpdate = true;
    material.uniforms.all.value = name === "cause" ? 1 : 0;
    for (const scale of document.querySelectorAll("[data-colour]")) scale.hidden = scale.dataset.colour !== name;
    redraw();
  }
  for (const choice of document.getElementsByName("colour"))
    choice.addEventListener("change", () => colour(choice.value));
  light.addEventListener("change", () => {
    material.uniforms.light.value = light.checked ? 1 : 0;
    redraw();
  });

  view.insertBefore(renderer.domElement, view.firstChild);
  renderer.setPixelRatio(Math.min(window.devicePixelRatio || 1, 2));
  function fit() {
    if (view.clientWidth === 0 || view.clientHeight === 0) return; // not laid out
    renderer.setSize(view.clientWidth, view.clientHeight, false);
    camera.aspect = view.clientWidth / view.clientHeight;
    redraw();
  }
  window.addEventListener("resize", fit);
  fit();
  colour(document.querySelector("[name=colour]:checked").value);
})();
