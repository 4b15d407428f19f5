// Small helpers shared by the views: element building and number formats.

// An element with attributes and children (strings become text, never HTML).
export function el(tag, attrs = {}, ...children) {
  const node = document.createElement(tag);
  for (const [name, value] of Object.entries(attrs)) node.setAttribute(name, value);
  for (const child of children) {
    if (child !== null && child !== undefined) node.append(child);
  }
  return node;
}

export function showError(parent, message) {
  parent.append(el('p', { class: 'error', role: 'alert' }, message));
}

export function formatCount(n) {
  return Number(n).toLocaleString('en-US');
}

// A span of microseconds for people: "1.25 s", "350 ms", "12.0 µs".
export function formatSeconds(us) {
  const abs = Math.abs(us);
  if (abs >= 1e6) return `${(us / 1e6).toFixed(abs >= 1e8 ? 1 : 3)} s`;
  if (abs >= 1e3) return `${(us / 1e3).toFixed(abs >= 1e5 ? 1 : 3)} ms`;
  return `${Number(us).toFixed(1)} µs`;
}
