// The flame graph's behaviour: zoom by click, search, details on hover.
// It runs in an SVG document and in an HTML page holding the SVG, reads
// everything from the boxes' attributes, and loads nothing.
(function () {
  'use strict';
  var svg = document.getElementById('flame');
  var total = Number(svg.getAttribute('data-total'));
  var width = Number(svg.getAttribute('data-width'));
  var pad = Number(svg.getAttribute('data-pad'));
  var charWidth = Number(svg.getAttribute('data-char-width'));
  var details = document.getElementById('details');
  var matched = document.getElementById('matched');
  var unzoom = document.getElementById('unzoom');
  var search = document.getElementById('search');
  var HIGHLIGHT = 'rgb(230,0,230)';

  var nodes = [];
  var byElement = new Map();
  Array.prototype.forEach.call(svg.querySelectorAll('g.f'), function (g) {
    var rect = g.querySelector('rect');
    var node = {
      g: g,
      rect: rect,
      text: g.querySelector('text'),
      root: g.classList.contains('root'),
      s: Number(g.getAttribute('data-s')),
      n: Number(g.getAttribute('data-n')),
      d: Number(g.getAttribute('data-d')),
      self: Number(g.getAttribute('data-self')),
      kind: g.getAttribute('data-kind'),
      name: g.getAttribute('data-name'),
      fill: rect.getAttribute('fill'),
      x: 0,
      w: 0
    };
    nodes.push(node);
    byElement.set(g, node);
  });
  // Boxes too narrow to draw: [start, samples, name index] each, for the search.
  var narrow = JSON.parse(document.getElementById('narrow').textContent);
  var zoomed = null;

  function percent(part, whole) {
    return whole > 0 ? (100 * part / whole).toFixed(2) + '%' : '0.00%';
  }

  function label(node) {
    var chars = Math.floor((node.w - 6) / charWidth);
    var text = '';
    if (chars >= 3) {
      text = node.name.length <= chars ? node.name : node.name.slice(0, chars - 2) + '..';
    }
    node.text.textContent = text;
    node.text.setAttribute('x', (node.x + 3).toFixed(2));
  }

  function place(node, x, w, visible) {
    node.x = x;
    node.w = w;
    node.g.style.display = visible ? '' : 'none';
    if (!visible) {
      return;
    }
    node.rect.setAttribute('x', x.toFixed(2));
    node.rect.setAttribute('width', w.toFixed(2));
    label(node);
  }

  // Unzoomed, a box is as wide as its share of all samples; zoomed, its share
  // of the zoomed box, whose ancestors then span the whole width.
  function layout() {
    var s0 = zoomed ? zoomed.s : 0;
    var n0 = zoomed ? zoomed.n : total;
    var d0 = zoomed ? zoomed.d : 0;
    var inner = width - 2 * pad;
    var scale = n0 > 0 ? inner / n0 : 0;
    nodes.forEach(function (node) {
      if (node.d < d0) {
        var ancestor = node.s <= s0 && node.s + node.n >= s0 + n0;
        place(node, pad, inner, ancestor);
        node.g.classList.toggle('ancestor', ancestor);
      } else {
        var inside = node.s >= s0 && node.s + node.n <= s0 + n0;
        place(node, pad + (node.s - s0) * scale, node.n * scale, inside);
        node.g.classList.remove('ancestor');
      }
    });
    unzoom.classList.toggle('hide', zoomed === null);
  }

  function zoomTo(node) {
    zoomed = node && !node.root ? node : null;
    layout();
  }

  // Highlights the boxes whose name matches and shows the share of samples
  // under them, nested matches counted once.
  function find(term) {
    var re = null;
    if (term) {
      try {
        re = new RegExp(term);
      } catch (e) {
        re = null;
      }
    }
    var spans = [];
    nodes.forEach(function (node) {
      var hit = !!term && !node.root && (re ? re.test(node.name) : node.name.indexOf(term) >= 0);
      node.rect.setAttribute('fill', hit ? HIGHLIGHT : node.fill);
      node.g.classList.toggle('match', hit);
      if (hit) {
        spans.push([node.s, node.s + node.n]);
      }
    });
    if (term) {
      var names = narrow.names.map(function (name) { return re ? re.test(name) : name.indexOf(term) >= 0; });
      for (var i = 0; i + 2 < narrow.spans.length; i += 3) {
        if (names[narrow.spans[i + 2]]) {
          spans.push([narrow.spans[i], narrow.spans[i] + narrow.spans[i + 1]]);
        }
      }
    }
    spans.sort(function (a, b) { return a[0] - b[0] || b[1] - a[1]; });
    var covered = 0;
    var end = -1;
    spans.forEach(function (span) {
      if (span[0] >= end) {
        covered += span[1] - span[0];
        end = span[1];
      } else if (span[1] > end) {
        covered += span[1] - end;
        end = span[1];
      }
    });
    matched.textContent = term ? 'Matched: ' + percent(covered, total) + ' (' + covered + ' of ' + total +
      ' samples)' : '';
    matched.setAttribute('data-samples', String(covered));
  }

  function nodeOf(target) {
    var g = target && target.closest ? target.closest('g.f') : null;
    return g ? byElement.get(g) : null;
  }

  svg.addEventListener('click', function (event) {
    if (event.target === unzoom) {
      zoomTo(null);
      return;
    }
    var node = nodeOf(event.target);
    if (node) {
      zoomTo(node);
    }
  });
  svg.addEventListener('mouseover', function (event) {
    var node = nodeOf(event.target);
    if (!node) {
      return;
    }
    var text = node.name + '  ' + percent(node.n, total) + ' (' + node.n + ' samples';
    if (!node.root) {
      text += ', self ' + node.self + '; ' + node.kind;
    }
    details.textContent = text + ')';
  });
  svg.addEventListener('mouseout', function (event) {
    if (nodeOf(event.target)) {
      details.textContent = ' ';
    }
  });
  search.addEventListener('input', function () { find(search.value); });
  search.addEventListener('keydown', function (event) {
    if (event.key === 'Enter') {
      find(search.value);
    }
  });
  document.addEventListener('keydown', function (event) {
    if ((event.ctrlKey || event.metaKey) && event.key === 'f') {
      event.preventDefault();
      search.focus();
    } else if (event.key === 'Escape') {
      search.value = '';
      find('');
      zoomTo(null);
    }
  });

  layout();
  // The root is at the bottom: start there.
  window.scrollTo(0, document.documentElement.scrollHeight);
  svg.setAttribute('data-ready', '1');
})();
