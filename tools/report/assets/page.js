// Draws the charts. Every number that they show is in the page's tables too.
'use strict';
(() => {
  const data = JSON.parse(document.getElementById('data').textContent);
  const root = document.documentElement;
  root.classList.add('charts');
  const minute = 60000;
  const hour = 60 * minute;
  const weekdays = ['Mon', 'Tue', 'Wed', 'Thu', 'Fri', 'Sat', 'Sun'];

  const pad = (n) => String(n).padStart(2, '0');
  const duration = (ms) => {
    const seconds = Math.round(ms / 1000);
    const minutes = Math.round(ms / minute);
    if (seconds < 60) return seconds + ' s';
    if (minutes < 60) return minutes + ' min';
    return Math.floor(minutes / 60).toLocaleString('en') + ' h ' + pad(minutes % 60) + ' min';
  };
  const shortDuration = (ms) => {
    if (ms % hour === 0) return (ms / hour).toLocaleString('en') + ' h';
    return ms < hour ? ms / minute + ' min' : ms / hour + ' h';
  };
  const format = (unit, value) => {
    if (unit === 'time') return duration(value);
    return value.toLocaleString('en') + (unit === 'percent' ? ' %' : '');
  };
  const cut = (text, length) => {
    const characters = Array.from(text);
    return characters.length <= length ? text : characters.slice(0, length - 1).join('') + '…';
  };

  // Steps of a scale that people count in.
  const timeSteps = [1, 2, 5, 10, 15, 30, 60, 120, 180, 360, 720, 1440].map((m) => m * minute);
  const stepOf = (chart) => {
    const most = Math.max(...chart.values, 1);
    if (chart.unit !== 'time') return most < 5 ? 1 : undefined;
    return timeSteps.find((step) => most / step <= 5) || 24 * hour * Math.ceil(most / (120 * hour));
  };

  const colour = (name) => getComputedStyle(root).getPropertyValue('--' + name).trim();
  const faded = (hex, part) => hex + pad(Math.round(255 * part).toString(16));

  const font = () => Chart.defaults.font.size + 'px ' + Chart.defaults.font.family;

  const bars = (chart, maxBarThickness) => ({
    labels: chart.labels,
    datasets: [{
      data: chart.values,
      backgroundColor: colour(chart.colour),
      borderRadius: 2,
      maxBarThickness,
    }],
  });

  // Bars of one measure over time.
  const columns = (chart) => ({
    type: 'bar',
    data: bars(chart, 28),
    options: {
      scales: {
        x: {
          grid: {display: false, drawBorder: false},
          ticks: {color: colour('quiet'), maxRotation: 0, autoSkipPadding: 14},
        },
        y: {
          beginAtZero: true,
          suggestedMax: stepOf(chart),
          afterFit: (axis) => {
            axis.width = 52; // the same for charts below each other
          },
          grid: {color: colour('line'), drawBorder: false, drawTicks: false},
          ticks: {
            color: colour('quiet'),
            padding: 8,
            maxTicksLimit: 6,
            stepSize: stepOf(chart),
            callback: (value) =>
              chart.unit === 'time' ? shortDuration(value) : format(chart.unit, value),
          },
        },
      },
      plugins: {
        tooltip: {
          callbacks: {
            title: ([item]) => chart.titles[item.dataIndex],
            label: (item) => format(chart.unit, item.raw),
          },
        },
      },
    },
  });

  // Several measures over time, on top of each other, with a legend.
  const stacks = (chart) => {
    const sums = chart.labels.map((_, i) => chart.values.reduce((sum, v) => sum + v[i], 0));
    const config = columns({...chart, values: sums});
    config.data.datasets = chart.values.map((values, i) => ({
      label: cut(chart.names[i], 28),
      data: values,
      backgroundColor: colour('stack-' + (i + 1)),
      maxBarThickness: 28,
    }));
    const {scales, plugins} = config.options;
    scales.x.stacked = scales.y.stacked = true;
    plugins.legend = {
      display: true,
      position: 'bottom',
      align: 'start',
      labels: {color: colour('ink'), boxWidth: 12, boxHeight: 12},
    };
    plugins.tooltip.callbacks.label = (item) =>
      chart.names[item.datasetIndex] + ': ' + format(chart.unit, item.raw);
    return config;
  };

  // One bar for each name, its value written beside it.
  const rows = (chart) => ({
    type: 'bar',
    data: bars(chart, 14),
    options: {
      indexAxis: 'y',
      layout: {padding: {right: chart.unit === 'time' ? 84 : 60}},
      scales: {
        x: {display: false, beginAtZero: true},
        y: {
          grid: {display: false, drawBorder: false},
          afterFit: (axis) => {
            // The library would clip labels that take more than their share of a narrow screen.
            const ctx = axis.ctx;
            ctx.save();
            ctx.font = font();
            axis.width = 12 + Math.max(...axis.ticks.map((tick) => ctx.measureText(tick.label).width));
            ctx.restore();
          },
          ticks: {
            color: colour('ink'),
            autoSkip: false,
            callback(value) {
              return cut(this.getLabelForValue(value), Math.min(32, Math.floor(this.chart.width / 19)));
            },
          },
        },
      },
      plugins: {
        tooltip: {
          callbacks: {
            title: ([item]) => chart.labels[item.dataIndex],
            label: (item) => format(chart.unit, item.raw),
          },
        },
      },
    },
    plugins: [{
      id: 'values',
      afterDatasetsDraw(drawing) {
        const ctx = drawing.ctx;
        ctx.save();
        ctx.font = font();
        ctx.fillStyle = colour('quiet');
        ctx.textBaseline = 'middle';
        drawing.getDatasetMeta(0).data.forEach((bar, i) => {
          ctx.fillText(format(chart.unit, chart.values[i]), bar.x + 6, bar.y);
        });
        ctx.restore();
      },
    }],
  });

  // The week as a grid of hours: bars of height 1 on top of each other, a row for each weekday.
  const hours = (chart) => {
    const most = Math.max(...chart.values.flat(), 1);
    const strong = colour(chart.colour);
    const shade = (value) =>
      value === 0 ? faded(colour('quiet'), 0.08) : faded(strong, 0.25 + (0.75 * value) / most);
    return {
      type: 'bar',
      data: {
        labels: Array.from({length: 24}, (_, i) => pad(i)),
        datasets: chart.values.map((day) => ({
          data: day.map(() => 1),
          backgroundColor: day.map(shade),
          borderColor: colour('card'),
          borderWidth: 1,
          borderSkipped: false,
          barPercentage: 1,
          categoryPercentage: 1,
        })),
      },
      options: {
        scales: {
          x: {
            stacked: true,
            grid: {display: false, drawBorder: false},
            ticks: {
              color: colour('quiet'),
              maxRotation: 0,
              autoSkip: false,
              callback: (value) => (value % 3 === 0 ? pad(value) : ''),
            },
          },
          y: {
            stacked: true,
            reverse: true,
            min: 0,
            max: 7,
            grid: {display: false, drawBorder: false},
            afterBuildTicks: (axis) => {
              axis.ticks = weekdays.map((_, i) => ({value: i + 0.5}));
            },
            ticks: {color: colour('quiet'), callback: (value) => weekdays[Math.floor(value)]},
          },
        },
        plugins: {
          tooltip: {
            callbacks: {
              title: ([item]) => weekdays[item.datasetIndex] + ', ' + pad(item.dataIndex) + ':00 to ' +
                pad(item.dataIndex + 1) + ':00',
              label: (item) =>
                format(chart.unit, chart.values[item.datasetIndex][item.dataIndex]),
            },
          },
        },
      },
    };
  };

  const kinds = {columns, stacks, rows, hours};
  const drawn = [];

  const draw = (canvas) => {
    const chart = data.charts[canvas.dataset.chart];
    if (chart.kind === 'rows') {
      const bar = root.classList.contains('printing') ? 20 : 28;
      canvas.parentNode.style.height = 16 + bar * chart.values.length + 'px';
    }
    drawn.push(new Chart(canvas, kinds[chart.kind](chart)));
  };
  const drawAll = () => {
    while (drawn.length > 0) drawn.pop().destroy();
    document.querySelectorAll('canvas[data-chart]').forEach(draw);
  };

  Chart.defaults.animation = false;
  Chart.defaults.responsive = true;
  Chart.defaults.maintainAspectRatio = false;
  Chart.defaults.font.family = getComputedStyle(document.body).fontFamily;
  Chart.defaults.font.size = 12;
  Chart.defaults.plugins.legend.display = false;
  Chart.defaults.plugins.tooltip.displayColors = false;
  drawAll();

  matchMedia('(prefers-color-scheme: dark)').addEventListener('change', drawAll);
  // Paper is light, narrower than most screens, and finer.
  const tables = [...document.querySelectorAll('main details')];
  for (const table of tables) table.open = false; // they are open where no script runs
  let opened = [];
  addEventListener('beforeprint', () => {
    root.classList.add('printing');
    opened = tables.filter((table) => !table.open);
    for (const table of opened) table.open = true;
    Chart.defaults.devicePixelRatio = 3;
    drawAll();
    for (const chart of drawn) {
      chart.resize(660, chart.options.indexAxis === 'y' ? chart.height : 165);
    }
  });
  addEventListener('afterprint', () => {
    root.classList.remove('printing');
    for (const table of opened) table.open = false;
    Chart.defaults.devicePixelRatio = undefined;
    drawAll();
  });
})();
