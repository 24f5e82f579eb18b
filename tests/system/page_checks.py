"""Questions about a page that are answered in the browser: contrast of what is shown, what the Tab key reaches."""

from __future__ import annotations

from typing import Any

from webdriver import TAB, Browser

# For each element with text of its own: its contrast with all that lies behind it, as WCAG 2.2 defines it.
CONTRASTS = """
const rgba = (text) => {
  const parts = text.match(/[\\d.]+/g).map(Number);
  return parts.length === 4 ? parts : [...parts, 1];
};
const over = (top, below) => [0, 1, 2].map((i) => top[i] * top[3] + below[i] * (1 - top[3])).concat(1);
const behind = (element) => {
  if (!element) return [255, 255, 255, 1];
  return over(rgba(getComputedStyle(element).backgroundColor), behind(element.parentElement));
};
const channel = (value) => (value /= 255) <= 0.04045 ? value / 12.92 : ((value + 0.055) / 1.055) ** 2.4;
const light = ([r, g, b]) => 0.2126 * channel(r) + 0.7152 * channel(g) + 0.0722 * channel(b);
const contrast = (a, b) => (Math.max(light(a), light(b)) + 0.05) / (Math.min(light(a), light(b)) + 0.05);
const hasText = (element) => [...element.childNodes].some((node) => node.nodeType === 3 && node.data.trim())
  || (element.matches("input, textarea") && element.value);
const found = [];
for (const element of document.body.querySelectorAll("*")) {
  if (!hasText(element) || !element.checkVisibility() || element.matches("option")) continue;
  const back = behind(element);
  const ratio = contrast(over(rgba(getComputedStyle(element).color), back), back);
  found.push([element.tagName + "." + element.className, element.innerText || element.value, ratio]);
}
return found;
"""

UNVISITED = """
return [...document.querySelectorAll("a[href], button, input, select, textarea, summary")]
  .filter((element) => element.checkVisibility() && !element.matches(":disabled") && element.tabIndex >= 0)
  .filter((element) => element.dataset.visited !== "yes").map((element) => element.outerHTML);
"""

FOCUSED = """
const element = document.activeElement;
if (element === document.body) return null;
const style = getComputedStyle(element);
element.dataset.visited = "yes";
return {tag: element.tagName, outline: style.outlineStyle === "none" ? 0 : parseFloat(style.outlineWidth),
        shown: element.checkVisibility(), back: element.dataset.first === "yes"};
"""


def contrasts(browser: Browser) -> list[tuple[str, str, float]]:
    """Element, text and contrast, for every text on the page."""
    return [(name, text, ratio) for name, text, ratio in browser.run(CONTRASTS)]


def focus_top(browser: Browser) -> None:
    """The next Tab key leads to the first control, whatever was clicked before."""
    browser.run("document.body.tabIndex = -1; document.body.focus(); document.body.removeAttribute('tabindex')")


def tab_stops(browser: Browser) -> list[dict[str, Any]]:
    """What gets the focus, one after the other, from the page's top until it is left; each with its name."""
    focus_top(browser)
    stops: list[dict[str, Any]] = []
    for _ in range(500):
        browser.press(TAB)
        stop = browser.run(FOCUSED)
        if stop is None or stop["back"]:
            return stops
        if not stops:
            browser.run("document.activeElement.dataset.first = 'yes'")
        stops.append({**stop, "name": browser.name_of_focused()})
    raise AssertionError("the Tab key never leaves the page")


def unvisited(browser: Browser) -> list[str]:
    """The controls to which the Tab key has not come."""
    return browser.run(UNVISITED)
